// Packed arrays and bit packing over positioned reads and writes: the four mechanisms that every section is made of.
#pragma once

#include "searchthing/bitpack.h"
#include "searchthing/packed_array.h"
#include "searchthing/timed_read.h"
