"""Tables: what most questions are answered with."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Iterator

from . import _veldar
from ._veldar import Column

if TYPE_CHECKING:
    import numpy
    import pandas

_SHOWN_ROWS = 10
_SHOWN_CHARACTERS = 60


class Texts(list):
    """A column of texts: a list of str, and None where there is no value.

    Bytes that are no UTF-8 are surrogates in them (PEP 383): text.encode(errors="surrogateescape") has them back.
    """

    __slots__ = ()
    type = "text"

    def to_list(self) -> list[str | None]:
        return list(self)

    def to_numpy(self) -> numpy.ndarray:
        """An array of objects."""
        import numpy

        array = numpy.empty(len(self), dtype=object)
        array[:] = self
        return array


class Table:
    """Columns of equal length, by name: table["count"]. Iterating gives its rows, each a dict.

    Columns of numbers and times are veldar.Column, which NumPy reads without copying; columns of texts are lists of
    str. A table keeps what it has, whatever becomes of the store.
    """

    __slots__ = ("_table", "_numbers", "_columns", "types")

    types: dict[str, str]
    """Of each column: "int64", "uint64", "double", "time" or "text"."""

    def __init__(self, table: _veldar.Table) -> None:
        self._table = table
        self._columns: dict[str, Column | Texts] = {}
        self._numbers: dict[str, int] = {}
        self.types = {}
        for number, (name, kind) in enumerate(table.describe()):
            self._numbers.setdefault(name, number)
            self.types.setdefault(name, kind)

    @property
    def columns(self) -> tuple[str, ...]:
        """Their names, in order."""
        return tuple(self.types)

    def __len__(self) -> int:
        return len(self._table)

    def __getitem__(self, name: str) -> Column | Texts:
        column = self._columns.get(name)
        if column is None:
            if name not in self.types:
                raise KeyError(f"no column {name!r}; there are {', '.join(self.types)}")
            number = self._numbers[name]
            is_text = self.types[name] == "text"
            column = Texts(self._table.values(number)) if is_text else self._table.numbers(number)
            self._columns[name] = column
        return column

    def __iter__(self) -> Iterator[dict[str, Any]]:
        names = self.columns
        for row in zip(*(self[name].to_list() for name in names)):
            yield dict(zip(names, row))

    def to_pandas(self) -> pandas.DataFrame:
        """A DataFrame: times as datetime64[ns, UTC], missing values as pandas has them. Needs pandas."""
        try:
            import numpy
            import pandas
        except ImportError as error:
            raise ImportError("to_pandas() needs pandas (Debian: python3-pandas)") from error

        data = {}
        for name, kind in self.types.items():
            column = self[name]
            values = column.to_numpy()
            if kind == "time":
                values = pandas.Series(values).dt.tz_localize("UTC")
            elif isinstance(values, numpy.ma.MaskedArray):
                values = pandas.arrays.IntegerArray(values.data, numpy.ma.getmaskarray(values))
            data[name] = values
        return pandas.DataFrame(data, copy=False)

    def __repr__(self) -> str:
        names = self.columns
        rows = [names] + [tuple(_cell(self[name][row]) for name in names)
                          for row in range(min(len(self), _SHOWN_ROWS))]
        widths = [max(map(len, cells)) for cells in zip(*rows)]
        lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows]
        more = len(self) - _SHOWN_ROWS
        if more > 0:
            lines.append(f"... and {more} more")
        return f"<veldar.Table of {len(self)} rows>\n" + "\n".join(lines)


def _cell(value: object) -> str:
    if value is None:
        return ""
    # Whatever a log holds, a terminal shows it and does not obey it.
    text = repr(value)[1:-1] if isinstance(value, str) else str(value)
    return text if len(text) <= _SHOWN_CHARACTERS else text[: _SHOWN_CHARACTERS - 3] + "..."


for _public in (Texts, Table):
    _public.__module__ = "veldar"
