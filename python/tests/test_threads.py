"""One chassis from several threads; discovery excludes every other call."""

import threading

import qbvisa
from qbvisa import sim
from qbvisa._locks import SharedExclusiveLock


def test_threads_share_one_matrix(qbvisa_matrix):
    m, errors = qbvisa_matrix, []

    def worker(row):
        try:
            for column in range(1, 51):
                m.close((row, column))
            for column in range(2, 51, 2):
                m.release((row, column))
        except Exception as exc:  # reported below
            errors.append(exc)

    threads = [threading.Thread(target=worker, args=(row,)) for row in range(1, 7)]
    # Discovery and reconnection run alongside the switching threads.
    threads.append(threading.Thread(target=lambda: [(qbvisa.find(), qbvisa.connect(m.chassis.resource))
                                                    for _ in range(5)]))
    [t.start() for t in threads]
    [t.join() for t in threads]
    assert errors == []
    wanted = {(r, c) for r in range(1, 7) for c in range(1, 51, 2)}
    assert m.closed == wanted
    reference = sorted(sim.closed_relays(m.chassis.resource))
    m.set(set())
    m.set(wanted)
    assert sorted(sim.closed_relays(m.chassis.resource)) == reference


def test_exclusive_waits_for_shared_holders():
    lock, order, inside, release = SharedExclusiveLock(), [], threading.Event(), threading.Event()

    def reader():
        with lock.shared(), lock.shared():  # re-entrant
            inside.set()
            release.wait(5)
            order.append("reader done")

    def writer():
        with lock.exclusive(), lock.shared():  # the writer may call shared code
            order.append("writer")

    r, w = threading.Thread(target=reader), threading.Thread(target=writer)
    r.start()
    inside.wait(5)
    w.start()
    w.join(0.2)
    assert order == []
    release.set()
    r.join(), w.join()
    assert order == ["reader done", "writer"]
