"""Ctrl-C during a call of the library.

Python runs its signal handlers between two of its own instructions, never inside of a C function. So while the main thread is
in the library, signals wake a thread of this module, which ends the wait there; then Python raises KeyboardInterrupt as ever.
"""

from __future__ import annotations

import os
import signal
import socket
import threading
import time
from typing import Any, Optional

from ._library import library

_RETRY_SECONDS = 0.02  # a call that had not begun to wait is cancelled again

_guard = threading.Lock()
_in_call: Optional[tuple[int]] = None  # the main thread's handle, in a tuple of its own for every call
_writer: Optional[socket.socket] = None
_descriptor = -1
_previous = -1  # who was told about signals before


def _watch(reader: socket.socket) -> None:
    while signals := reader.recv(64):
        if _previous != -1 and os.name == "posix":
            try:
                os.write(_previous, signals)
            except OSError:
                pass
        if signal.SIGINT in signals:
            _cancel_call()


def _cancel_call() -> None:
    call = _in_call
    while call is not None:
        with _guard:
            if _in_call is not call:
                return
            library().QTX_Cancel(call[0])
        time.sleep(_RETRY_SECONDS)


def _start() -> None:
    global _writer, _descriptor
    reader, _writer = socket.socketpair()
    _writer.setblocking(False)
    _descriptor = _writer.fileno()
    threading.Thread(target=_watch, args=(reader,), name="pulsekit3-interrupt", daemon=True).start()


def _forget() -> None:
    """The thread does not live on in a forked process."""
    global _writer, _descriptor, _in_call
    _writer, _descriptor, _in_call = None, -1, None


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_forget)


def call(function: Any, handle: int, *arguments: Any) -> int:
    """function(handle, *arguments), which Ctrl-C ends with code 1537."""
    global _in_call, _previous
    if threading.current_thread() is not threading.main_thread():
        return int(function(handle, *arguments))
    if _writer is None:
        _start()
    try:
        _in_call = (handle,)  # before signals are watched for, so that none finds nothing to cancel
        try:
            previous = signal.set_wakeup_fd(_descriptor, warn_on_full_buffer=False)
        except ValueError:  # not the main interpreter
            return int(function(handle, *arguments))
        _previous = previous if previous != _descriptor else -1
        code: int = function(handle, *arguments)
        return code
    finally:
        _in_call = None
        try:
            signal.set_wakeup_fd(_previous)
        except ValueError:
            pass
        with _guard:  # no cancel is under way when the handle is freed
            pass
