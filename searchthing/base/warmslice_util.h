// Packed arrays and bit packing over positioned reads and writes: the four mechanisms that every section is made of.
#pragma once

#include "searchthing/base/bitpack.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/base/timed_read.h"
