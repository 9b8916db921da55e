#!/usr/bin/python3
"""Find every chassis, then close and open crosspoints on the first RK420.

Runs on the simulated bench; pass --station to use the station's VISA."""

import sys

import qbvisa

if "--station" not in sys.argv:
    qbvisa.sim.use()

for found in qbvisa.find():
    print(f"{found.resource:40} {found.model} ({found.type_code})")

resource = next(f.resource for f in qbvisa.find() if f.model.startswith("RK420"))
with qbvisa.connect(resource) as chassis:
    matrix = chassis.open(0)                 # every relay opens
    print(f"{chassis.model}: {matrix.rows} rows x {matrix.columns} columns")
    matrix.close("1!1, 2!5:3!6")             # a point and a rectangle
    matrix.release([(2, 5)])
    print("closed:", sorted(matrix.closed))
    try:
        matrix.close((13, 1))                # no row 13: refused, nothing sent
    except qbvisa.BadArgumentError as error:
        print("refused:", error)
    chassis.clear()
