#!/usr/bin/python3
"""Loads a log and draws how many of its lines an hour has, by level.

    hourly_chart.py LOG PNG [FIELD]
"""

import sys
import tempfile

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import veldar

log, png = sys.argv[1:3]
field = sys.argv[3] if len(sys.argv) > 3 else "level"

with tempfile.TemporaryDirectory() as directory, veldar.open(directory + "/logs.veldar", create=True) as store:
    loaded = store.load(log, fsync=False)
    table = store.stats(by=field, every="1h", missing=True)

hours = table.to_pandas().pivot_table(index="time", columns=field, values="count", aggfunc="sum", fill_value=0, dropna=False)
hours = hours.asfreq("1h", fill_value=0)  # hours without a line have no row

figure, axes = plt.subplots(figsize=(10, 4))
bottom = 0
for name in hours.columns:
    axes.bar(hours.index, hours[name], width=1 / 24, bottom=bottom, label=name or "(none)")
    bottom = bottom + hours[name]
axes.set(title=f"{loaded.events} events", xlabel="UTC", ylabel="events an hour")
axes.legend(title=field)
figure.autofmt_xdate()
figure.savefig(png)
