"""How veldar.cluster has tasks run: where their files are, again when a worker dies, and not for ever."""

from __future__ import annotations

import asyncio
import socket
import time
from collections.abc import Callable, Iterable, Mapping
from concurrent.futures import CancelledError
from typing import Any, NamedTuple
from uuid import uuid4

from distributed import Client, Future, KilledWorker, wait
from distributed.diagnostics.plugin import SchedulerPlugin

from ._records import Error

_LOOK_EVERY_S = 0.2
_MERGES_TRIED = 3
_AGAIN = ""  # why a task is begun anew: the worker of this name came back at another address


class Catalogue(SchedulerPlugin):
    """In the scheduler's process: what indexes there are and what times they cover, for all clients; and answers to what
    clients cannot see of the scheduler."""

    name = "veldar-catalogue"

    def __init__(self) -> None:
        self._stores: dict[str, Any] = {}
        self._scheduler: Any = None

    async def start(self, scheduler: Any) -> None:
        self._scheduler = scheduler
        scheduler.handlers.update(veldar_state=self.state, veldar_keep=self.keep, veldar_stranded=self.stranded)

    def state(self, stores: list[str]) -> dict[str, Any]:
        """The workers, and what is known of these stores."""
        now = time.monotonic()
        known = {one: self._stores[one] for one in stores if one in self._stores}
        return {"workers": [[address, str(worker.name), worker.host] for address, worker in self._scheduler.workers.items()],
                "stores": {one: [now - at, stamp, indexes] for one, (at, stamp, indexes) in known.items()}}

    def keep(self, stores: dict[str, Any]) -> None:
        """What was found out just now; of a store that did not change only that."""
        for one, found in stores.items():
            if found is None and one in self._stores:
                found = self._stores[one][1:]
            if found is not None:
                self._stores[one] = (time.monotonic(), *found)

    def stranded(self, keys: list[str]) -> list[str]:
        """The tasks that no worker can run."""
        tasks = self._scheduler.tasks
        return [key for key in keys if key in tasks and tasks[key].state == "no-worker"]


class NoWorkerError(Error):
    """Nobody is there to answer."""


class Task(NamedTuple):
    host: str
    """Which has the files; "": any worker can reach them."""
    label: str
    """For people."""
    arguments: tuple[Any, ...]


def _address_of(host: str) -> str:
    try:
        return socket.gethostbyname(host)
    except OSError:
        return host


class Runner:
    """Tasks of one client."""

    def __init__(self, client: Client, timeout: float, resources: Mapping[str, Mapping[str, float]] | None) -> None:
        self._client = client
        self._timeout = timeout
        self._resources = dict(resources or {})
        self._workers: list[list[str]] = []
        self._has_catalogue = False

    def state(self, stores: list[str]) -> dict[str, Any]:
        """What the catalogue knows. Waits for a first worker; NoWorkerError."""
        if not self._has_catalogue:
            self._client.register_scheduler_plugin(Catalogue(), idempotent=True)
            self._has_catalogue = True
        deadline = time.monotonic() + self._timeout
        while True:
            state = self._call("veldar_state", stores=stores)
            self._workers = state["workers"]
            if self._workers:
                return state
            if time.monotonic() >= deadline:
                raise NoWorkerError(f"no worker came within {self._timeout:g} s")
            time.sleep(_LOOK_EVERY_S)

    def keep(self, stores: dict[str, Any]) -> None:
        self._call("veldar_keep", stores=stores)

    def _names(self) -> set[str]:
        """Of the workers there are now."""
        self._workers = self._call("veldar_state", stores=[])["workers"]
        return {name for _, name, _ in self._workers}

    def _call(self, operation: str, **arguments: Any) -> Any:
        return self._client.sync(getattr(self._client.scheduler, operation), **arguments)

    def _place(self, host: str) -> dict[str, Any]:
        """Where tasks of a host may run. A name that no worker has yet is waited for."""
        if host in self._resources:
            return {"resources": dict(self._resources[host])}
        if not host:
            return {}
        named = [address for address, name, _ in self._workers if name == host]
        if named:
            return {"workers": named}
        return {"workers": [_address_of(host)]}

    def submit(self, function: Callable[..., Any], tasks: Iterable[Task]) -> dict[Future, Task]:
        """Each function(*task.arguments), where its files are."""
        by_host: dict[str, list[Task]] = {}
        for task in tasks:
            by_host.setdefault(task.host, []).append(task)
        begun: dict[Future, Task] = {}
        for host, of_host in by_host.items():
            name = f"veldar-{function.__name__}-{uuid4().hex}"
            futures = self._client.map(function, *zip(*(task.arguments for task in of_host)), pure=False,
                                       key=[f"{name}-{number}" for number in range(len(of_host))], **self._place(host))
            begun.update(zip(futures, of_host))
        return begun

    def _wait(self, wanted: list[Future], leaves: dict[Future, Task]) -> dict[Future, str]:
        """Until the wanted ones have ended, well or not. Leaves that will not end well, and why."""
        since: dict[str, float] = {}
        broken: dict[Future, str] = {}
        while True:
            left = [future for future in wanted if not future.done() and future not in broken]
            if not left:
                break
            try:
                with self._client.as_current():
                    wait(left, timeout=_LOOK_EVERY_S)
                continue
            except (asyncio.TimeoutError, CancelledError):
                pass
            stranded = set(self._call("veldar_stranded", keys=[future.key for future in leaves]))
            since = {key: since.get(key, time.monotonic()) for key in stranded}
            names = self._names() if stranded else set()
            for future, task in leaves.items():
                if future.key in stranded and task.host in names:
                    broken[future] = _AGAIN
                elif future.key in stranded and time.monotonic() - since[future.key] >= self._timeout:
                    where = f" at {task.host}" if task.host else ""
                    broken[future] = f"no worker{where} came within {self._timeout:g} s"
            if any(future not in wanted for future in broken):
                break
        for future in leaves:
            if future.status in ("error", "cancelled"):
                broken[future] = self._reason(future)
        return broken

    @staticmethod
    def _reason(future: Future) -> str:
        error = future.exception() if future.status == "error" else None
        if error is None:
            return "its task was cancelled"
        if isinstance(error, (Error, TypeError, ValueError)):
            raise error
        if isinstance(error, KilledWorker):
            return "each worker died that took it on"
        return f"{type(error).__name__}: {error}"

    def gather(self, function: Callable[..., Any], tasks: list[Task]) -> tuple[list[tuple[Task, Any]], list[str]]:
        """The results of tasks, and what is missing of them."""
        return self.results(function, self.submit(function, tasks))

    def results(self, function: Callable[..., Any], begun: dict[Future, Task]) -> tuple[list[tuple[Task, Any]], list[str]]:
        """The same of tasks that were begun."""
        lacks: list[str] = []
        while broken := self._wait(list(begun), begun):
            self._leave_out(function, begun, broken, lacks)
        return list(zip(begun.values(), self._client.gather(list(begun)))), lacks

    def _leave_out(self, function: Callable[..., Any], begun: dict[Future, Task], broken: dict[Future, str],
                   lacks: list[str]) -> None:
        """Takes what broke out, and names it or begins it again."""
        again = [begun[future] for future, why in broken.items() if why == _AGAIN]
        lacks += [f"{begun[future].label}: {why}" for future, why in broken.items() if why != _AGAIN]
        for future in broken:
            del begun[future]
        begun.update(self.submit(function, again))

    def merged(self, answer: Callable[..., bytes], begun: dict[Future, Task], merge: Callable[..., bytes],
               question: bytes, lacks: list[str], fan_in: int) -> bytes:
        """The answers of tasks, merged `fan_in` at a time wherever they are, and the last ones here. What breaks is left
        out and named."""
        lacks = list(lacks)
        failures = 0
        while True:
            last = self._tree(merge, question, list(begun), fan_in)
            broken = self._wait(last, begun)
            failed = [future for future in last if future.status != "finished"]
            if not failed and not broken:
                return merge(question, self._client.gather(last), lacks)
            if not broken:
                failures += 1
                if failures == _MERGES_TRIED or not isinstance(failed[0].exception(), KilledWorker):
                    failed[0].result()
            self._leave_out(answer, begun, broken, lacks)

    def _tree(self, merge: Callable[..., bytes], question: bytes, level: list[Future], fan_in: int) -> list[Future]:
        """At most twice as many futures as are merged at a time: one level less is worth it."""
        while len(level) > 2 * fan_in:
            groups = [level[at:at + fan_in] for at in range(0, len(level), fan_in)]
            level = list(self.submit(merge, [Task("", "", (question, group, [])) for group in groups]))
        return level
