"""The simulated device: a host root directory, loaded and changed by tarnctl.

Every process that names the same host root belongs to the same device.  The
root in force is the host's (``TARNHOST_ROOT`` or the host's default, as
``tarnhost_root()`` answers it); a temporary device gets a fresh private root
of its own for the duration of a ``with`` block.

Loading descriptions and playing change files are the device model's job
(docs/device-format.md): today tarnctl's, which this module runs rather than
repeating it (DeviceModel).
"""

from __future__ import annotations

import contextlib
import json
import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path
from typing import Any, Generator, Mapping, Optional, Protocol, Union

from . import _core
from . import _native as N
from ._core import current_root
from .errors import DeviceError

# "2026-01-02T03:04:05.678901Z host name[pid]: " before each message.
_LOG_PREFIX = re.compile(r"^\S+ \S+ [^\s\[]+\[[0-9]+\]: ")

ROOT_ENV = "TARNHOST_ROOT"
RUNNING_URI = "volatile:/tarnhost/running"

Description = Union[Mapping[str, Any], str, "os.PathLike[str]"]


@contextlib.contextmanager
def _root_in_force(root: str) -> Generator[None, None, None]:
    """Make ``root`` the host root of this process for a moment."""
    old = os.environ.get(ROOT_ENV)
    if old == root:
        yield
        return
    os.environ[ROOT_ENV] = root
    try:
        yield
    finally:
        if old is None:
            del os.environ[ROOT_ENV]
        else:
            os.environ[ROOT_ENV] = old


class DeviceModel(Protocol):
    """What loads and changes a device: ``load(root, path)`` replaces a
    device's databases by a description file and brings it up,
    ``apply(root, path)`` plays a change file; each returns the lines it
    printed and raises DeviceError with the refusal.  ``TarnctlModel`` runs
    tarnctl; a model built on a C device library, called in-process, can
    take its place (``set_device_model``) without any change to Device or
    to the tarn.testing fixtures."""

    def load(self, root: str, path: str) -> str: ...

    def apply(self, root: str, path: str) -> str: ...


class TarnctlModel:
    """The device model of tarnctl (``tarnctl load``, ``tarnctl apply``)."""

    def _run(self, root: str, *args: str) -> str:
        env = dict(os.environ)
        env[ROOT_ENV] = root
        proc = subprocess.run([N.tarnctl_path(), *args], env=env,
                              capture_output=True, text=True, check=False)
        if proc.returncode != 0:
            msg = proc.stderr.strip() or proc.stdout.strip() or \
                f"tarnctl {args[0]} failed with status {proc.returncode}"
            raise DeviceError(msg, proc.returncode)
        return proc.stdout

    def load(self, root: str, path: str) -> str:
        return self._run(root, "load", "--", path)

    def apply(self, root: str, path: str) -> str:
        return self._run(root, "apply", "--", path)


_MODEL: list[DeviceModel] = [TarnctlModel()]


def device_model() -> DeviceModel:
    """The device model in use."""
    return _MODEL[0]


def set_device_model(model: DeviceModel) -> DeviceModel:
    """Use ``model`` from now on; returns the one it replaces."""
    old = _MODEL[0]
    _MODEL[0] = model
    return old


def _model(command: str, root: str, path: str) -> str:
    model = _MODEL[0]
    return model.load(root, path) if command == "load" else model.apply(root, path)


class Device:
    """A simulated device, named by its host root.

    ``Device()`` is the device of the root in force; ``Device(root)`` another
    one.  ``Device.temporary(description)`` is a context manager that brings
    a device up in a fresh private root and removes it afterwards.
    """

    def __init__(self, root: Optional[Union[str, "os.PathLike[str]"]] = None
                 ) -> None:
        self.root: str = os.fspath(root) if root is not None else current_root()

    def __repr__(self) -> str:
        return f"Device({self.root!r})"

    # ---- the device model -----------------------------------------------------

    def _with_file(self, command: str, document: Description) -> str:
        if isinstance(document, Mapping):
            # A private directory of our own: never a name another user can
            # guess and replace.
            with tempfile.TemporaryDirectory(prefix="tarn-py-") as tmp:
                path = Path(tmp) / f"{command}.json"
                with open(path, "w", encoding="utf-8") as out:
                    json.dump(document, out)
                return _model(command, self.root, str(path))
        return _model(command, self.root, os.fspath(document))

    def load(self, description: Description) -> str:
        """Replace the device's databases by a description (a dict, or the
        path of a JSON file) and bring it up.  Returns tarnctl's summary
        line; raises DeviceError with tarnctl's message when the description
        is refused (nothing is written then)."""
        return self._with_file("load", description).strip()

    def apply(self, changes: Description) -> list[str]:
        """Play a change file (a dict, or a path): each change is written and
        its notification published to the subscribed clients.  Returns the
        lines tarnctl printed, one per change; raises DeviceError when the
        file is refused or a change fails."""
        return self._with_file("apply", changes).splitlines()

    # ---- the supervisor ------------------------------------------------------

    def up(self, running_uri: Optional[str] = None) -> None:
        """Bring the device up (a loaded device is up already)."""
        with _root_in_force(self.root):
            err = N.host.tarnhost_device_up(
                _core.optional_name(running_uri, "running_uri"))
        if err:
            raise OSError(err, os.strerror(err), self.root)

    def down(self) -> None:
        """Take the running configuration away: clients cannot initialise."""
        with _root_in_force(self.root):
            err = N.host.tarnhost_device_down()
        if err:
            raise OSError(err, os.strerror(err), self.root)

    def log_lines(self) -> list[str]:
        """The device's shared log (every process's rendered reports),
        without the syslog-file prefix (time, host, process[pid]) that each
        line of the file starts with."""
        try:
            with open(Path(self.root) / "log" / "messages", encoding="utf-8",
                      errors="replace") as log:
                return [_LOG_PREFIX.sub("", line, count=1)
                        for line in log.read().splitlines()]
        except FileNotFoundError:
            return []

    # ---- temporary devices ---------------------------------------------------

    @classmethod
    def temporary(cls, description: Optional[Description] = None,
                  directory: Optional[str] = None) -> "TemporaryDevice":
        """A device in a fresh private root (made with mkdtemp, mode 0700,
        under ``directory`` or the system's temporary directory), loaded
        with ``description`` when one is given.  Use it with ``with``."""
        return TemporaryDevice(description, directory)


class TemporaryDevice(Device):
    """A device that lives for one ``with`` block.

    On entry the root is created and made the root in force of this process
    (``TARNHOST_ROOT``), so that the library, the bus and every child
    process started from here work on it; on exit the library is closed if
    it is still open, the previous root comes back and the directory is
    removed.
    """

    def __init__(self, description: Optional[Description] = None,
                 directory: Optional[str] = None) -> None:
        self._description = description
        self._directory = directory
        self._old_root: Optional[str] = None
        self._entered = False
        self.root = ""

    def __enter__(self) -> "TemporaryDevice":
        self.root = tempfile.mkdtemp(prefix="tarn-device.", dir=self._directory)
        self._old_root = os.environ.get(ROOT_ENV)
        os.environ[ROOT_ENV] = self.root
        _core.root_changed()
        self._entered = True
        try:
            err = N.host.tarnhost_root_prepare()
            if err:
                raise OSError(err, os.strerror(err), self.root)
            if self._description is not None:
                self.load(self._description)
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *exc: object) -> None:
        if not self._entered:
            return
        self._entered = False
        # The libraries opened on this device go with it; those of other
        # devices stay open.
        _core.close_root(self.root)
        if self._old_root is None:
            os.environ.pop(ROOT_ENV, None)
        else:
            os.environ[ROOT_ENV] = self._old_root
        _core.root_changed()
        shutil.rmtree(self.root, ignore_errors=True)
