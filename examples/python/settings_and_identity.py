#!/usr/bin/python3
"""Identity, versions and communication settings of each chassis; settings a
model does not have raise NotSupportedError rather than being skipped.

Runs on the simulated bench; pass --station to use the station's VISA."""

import sys

import qbvisa

if "--station" not in sys.argv:
    qbvisa.sim.use()

print("library", qbvisa.library_version())
for found in qbvisa.find():
    with qbvisa.connect(found.resource) as chassis:
        info = chassis.info()
        print(f"{info.model} serial {info.serial_number} firmware {info.firmware_versions} "
              f"hardware {info.hardware_versions}")
        print("  ", chassis.scpi("*IDN?").strip())
        try:
            print(f"   GPIB {chassis.gpib_address}, {chassis.baud_rate} baud, "
                  f"IP {chassis.ip_address} ({chassis.lan_mode.name}), "
                  f"{chassis.control_mode.name} control")
        except qbvisa.NotSupportedError:
            print("   no communication settings on this model")

with qbvisa.connect("USB0::0x1A2B::0x0421::RK421001::INSTR") as rk421:
    rk421.gpib_address = 9
    assert rk421.gpib_address == 9
    try:
        rk421.baud_rate = 4800
    except qbvisa.BadArgumentError as error:
        print("refused:", error)
