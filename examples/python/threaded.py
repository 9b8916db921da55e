#!/usr/bin/python3
"""Several threads share one chassis: the package serialises their calls on
that chassis, while two chassis switch side by side.

Runs on the simulated bench; pass --station to use the station's VISA."""

import sys
import threading

import qbvisa

if "--station" not in sys.argv:
    qbvisa.sim.use()

rk420 = qbvisa.connect("GPIB0::5::INSTR").open(0)
rk421 = qbvisa.connect("USB0::0x1A2B::0x0421::RK421001::INSTR").open(0)


def walk(matrix: qbvisa.Matrix, row: int) -> None:
    for column in range(1, 11):
        matrix.close((row, column))
        matrix.release((row, column))
    matrix.close((row, row))


threads = [threading.Thread(target=walk, args=(matrix, row))
           for matrix in (rk420, rk421) for row in range(1, 5)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
for matrix in (rk420, rk421):
    print(matrix.chassis.model, sorted(matrix.closed))
    assert matrix.closed == {(r, r) for r in range(1, 5)}
