"""Veldar: stores of indexed logs and metrics.

    import veldar

    with veldar.open("logs.veldar", create=True) as store:
        store.load(["access.log"])
        for event in store.search("status=500", since="-1d"):
            print(event.time, event.fields["path"])
        print(store.stats(by="status", every="1h").to_pandas())

Messages of the library go to logging.getLogger("veldar"). Questions that could not be answered whole give what there is
and a veldar.IncompleteWarning; what failed raises a veldar.Error.
"""

from ._records import (DamagedError, Error, IncompleteWarning, Loaded, Optimized, Progress, Seen, StorageError,
                       UsageError)
from ._store import Event, Metrics, Store, Writer, open
from ._table import Column, Table, Texts
from ._veldar import version as _version

Column.__module__ = "veldar"
__version__: str = _version()
__all__ = ["Column", "DamagedError", "Error", "Event", "IncompleteWarning", "Loaded", "Metrics", "Optimized", "Progress",
           "Seen", "StorageError", "Store", "Table", "Texts", "UsageError", "Writer", "open"]
