"""Threads and fork(): calls are serialised by the library's lock, walks
are never cut short, a forked child gets a working library, and a failure
whose report the rate limiter held back still raises."""

from __future__ import annotations

import multiprocessing
import os
import threading

import pytest

import tarn
from tarn import _native as N


def test_walks_from_many_threads_are_whole(lib):
    want_contexts = [c.id for c in lib.contexts()]
    want_ifaces = [i.ifindex for i in lib.interfaces()]
    want_ftags = list(lib.gyre.ftags())
    errors: list[BaseException] = []
    short: list[str] = []

    def work() -> None:
        try:
            for _ in range(150):
                if [c.id for c in lib.contexts()] != want_contexts:
                    short.append("contexts")
                if [i.ifindex for i in lib.interfaces()] != want_ifaces:
                    short.append("interfaces")
                if list(lib.gyre.ftags()) != want_ftags:
                    short.append("ftags")
                assert lib.context_id("red") == 3
        except BaseException as exc:  # noqa: B902 - reported below
            errors.append(exc)

    threads = [threading.Thread(target=work) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert errors == []
    assert short == []
    assert tarn.take_log_lines() == []


def test_a_walk_started_before_another_still_finishes(lib):
    outer = lib.contexts()
    assert next(outer).id == 1
    assert [i.ifindex for i in lib.interfaces()] == [100, 200, 300]
    assert [c.id for c in outer] == [2, 3, 5]


def test_a_forked_child_gets_a_working_library(lib):
    assert lib.context_id("red") == 3
    ctx = multiprocessing.get_context("fork")
    queue = ctx.Queue()

    def child(q: "multiprocessing.Queue[object]") -> None:
        try:
            q.put((lib.context_id("red"), lib.context_id("red"),
                   [c.id for c in lib.contexts()]))
        except BaseException as exc:  # noqa: B902
            q.put(repr(exc))

    proc = ctx.Process(target=child, args=(queue,))
    proc.start()
    got = queue.get(timeout=30)
    proc.join(30)
    assert got == (3, 3, [1, 2, 3, 5])
    assert lib.context_id("red") == 3  # the parent's is untouched


def test_a_client_of_the_parent_is_refused_in_the_child_with_the_fix(lib, client):
    pid = os.fork()
    if pid == 0:  # pragma: no cover - the child reports through its status
        code = 1
        try:
            client.poll()
        except OSError as exc:
            code = 0 if "fork()" in str(exc) and "new client" in str(exc) else 2
        except BaseException:
            code = 3
        os._exit(code)
    _, status = os.waitpid(pid, 0)
    assert os.waitstatus_to_exitcode(status) == 0
    assert client.poll() == []


def test_a_held_back_report_is_still_a_failure(lib):
    N.host.tarnhost_fault_set(b"kvs_read", 5, 2)
    try:
        with pytest.raises(tarn.TarnError) as first:
            lib.context_id("red")
        assert first.value.code == "TARN_KVS_READ"
        # The same failure within the rate limiter's window renders no line.
        with pytest.raises(tarn.TarnError) as again:
            lib.context_id("red")
        assert again.value.log_line is None
        assert "held back by the rate limiter" in str(again.value)
    finally:
        N.host.tarnhost_fault_clear_all()
    assert lib.context_id("red") == 3
    assert lib.context_id("nowhere") is None
