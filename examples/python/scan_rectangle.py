#!/usr/bin/python3
"""Scan loop: connect each crosspoint of a rectangle in turn, as a test
program does to measure every path of a fixture, one path closed at a time.

Runs on the simulated bench; pass --station to use the station's VISA."""

import sys

import qbvisa

if "--station" not in sys.argv:
    qbvisa.sim.use()

RESOURCE = "USB0::0x1A2B::0x0421::RK421001::INSTR"


def measure(row: int, column: int) -> float:
    """Stands in for a meter reading through the closed path."""
    return 0.1 * row + 0.01 * column


with qbvisa.connect(RESOURCE) as chassis:
    matrix = chassis.open(0)
    readings = {}
    for row in range(1, 5):
        for column in range(1, 9):
            matrix.set({(row, column)})      # exactly this path closed
            readings[row, column] = measure(row, column)
    matrix.open_all()
    worst = max(readings, key=lambda point: readings[point])
    print(f"{len(readings)} paths measured, highest at {worst}: {readings[worst]:.2f}")
    assert not matrix.closed
