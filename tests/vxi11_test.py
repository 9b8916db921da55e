"""vxi11_test.py QBVISA_SIM, in a private network namespace (tests/in_netns.sh;
the port mapper listens on port 111): the rack server as a LAN instrument,
driven by a client nobody here wrote (pyvisa-py speaks VXI-11)."""
import json
import os
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import pyvisa

SIM = sys.argv.pop(1) if len(sys.argv) > 1 else "build/sim/qbvisa-sim"
RK420 = "GPIB0::5::INSTR"


def rpc_call(sock, program, version, procedure, args=b"", xid=7):
    """Sends one ONC RPC call as a single record and returns the reply body."""
    call = struct.pack(">IIIIII", xid, 0, 2, program, version, procedure) + bytes(16) + args
    sock.sendall(struct.pack(">I", 0x80000000 | len(call)) + call)
    mark = sock.recv(4)
    if len(mark) < 4:
        return None
    size, body = struct.unpack(">I", mark)[0] & 0x7FFFFFFF, b""
    while len(body) < size:
        chunk = sock.recv(size - len(body))
        if not chunk:
            return None
        body += chunk
    return body


class Vxi11Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.socket = os.path.join(cls.dir.name, "rack.sock")
        cls.env = dict(os.environ, QBSIM_SERVER=cls.socket)
        cls.env.pop("QBSIM_BENCH", None)
        cls.server = subprocess.Popen([SIM, "serve", "--socket", cls.socket], env=cls.env)
        for _ in range(250):
            try:
                with socket.create_connection(("127.0.0.1", 111), timeout=1):
                    break
            except OSError:
                time.sleep(0.02)
        else:
            raise RuntimeError("qbvisa-sim does not answer on port 111")
        cls.rm = pyvisa.ResourceManager("@py")

    @classmethod
    def tearDownClass(cls):
        cls.rm.close()
        subprocess.run([SIM, "stop"], env=cls.env, check=True)
        assert cls.server.wait(timeout=10) == 0
        cls.dir.cleanup()

    def sim(self, *args):
        return subprocess.run([SIM, *args], env=self.env, check=True, capture_output=True,
                              text=True).stdout

    def open(self, device):
        inst = self.rm.open_resource("TCPIP0::127.0.0.1::%s::INSTR" % device)
        inst.timeout = 2000
        return inst

    def test_identification_of_each_chassis(self):
        for device, idn in [("inst0", "QB ,RK420 ,20420001 ,3.06\n"),
                            ("inst1", "QB ,RK421 ,20421001 ,2.05\n"),
                            ("inst3", "QB ,RK423 ,20423001 ,1.01\n")]:
            inst = self.open(device)
            self.assertEqual(inst.query("*IDN?"), idn, device)
            inst.close()
        self.assertRaises(Exception, self.open, "inst7")  # no such device

    def test_a_relay_state_frame_switches_the_chassis(self):
        self.sim("reset", RK420)
        inst = self.open("inst0")
        # Five boards of 12 bit groups; a board's words come last group
        # first, so word 0 is board 0's group 11.
        words = [0] * 60
        words[0], words[12 * 2 + 11] = 1 << 3, 1 << 15  # board 2, group 0
        inst.write_raw(struct.pack("<HH60H", 19, 120, *words))
        self.assertEqual(inst.read_raw(), bytes([19, 0, 0, 0]) + bytes(60))
        inst.close()
        closed = json.loads(self.sim("relays", RK420, "--json"))["closed"]
        self.assertEqual(closed, [{"board": 0, "group": 11, "bit": 3},
                                  {"board": 2, "group": 0, "bit": 15}])

    def test_bad_calls_get_rpc_errors_and_oversized_records_close(self):
        with socket.create_connection(("127.0.0.1", 111), timeout=2) as sock:
            # accept_stat after xid, REPLY, MSG_ACCEPTED and an empty verifier
            cases = [((0x0607AF, 1, 0), 0),     # NULL of the core channel: SUCCESS
                     ((123456, 1, 0), 1),       # PROG_UNAVAIL
                     ((100000, 3, 3), 2),       # PROG_MISMATCH
                     ((100000, 2, 9), 3),       # PROC_UNAVAIL
                     ((0x0607AF, 1, 11), 4)]    # GARBAGE_ARGS: no arguments
            for (program, version, procedure), status in cases:
                body = rpc_call(sock, program, version, procedure)
                self.assertEqual(struct.unpack(">IIIIII", body[:24])[5], status)
            # GETPORT of the core channel answers a port; of anything else 0.
            body = rpc_call(sock, 100000, 2, 3, struct.pack(">IIII", 0x0607AF, 1, 6, 0))
            core = struct.unpack(">I", body[24:28])[0]
            self.assertNotEqual(core, 0)
            sock.sendall(struct.pack(">I", 0x7FFFFFFF) + b"x" * 64)
            self.assertIn(sock.recv(4), (b"",))
        self.assertIn("RK420", self.open("inst0").query("*IDN?"))
        # A device may also be named by its resource name, in any case.
        with socket.create_connection(("127.0.0.1", core), timeout=2) as sock:
            for device, error in [("gpib0::5::instr", 0), ("GPIB0::9::INSTR", 3), ("inst", 3)]:
                name = device.encode()
                args = struct.pack(">iII", 1, 0, 0) + struct.pack(">I", len(name)) + name
                body = rpc_call(sock, 0x0607AF, 1, 10, args + bytes(-len(name) % 4))
                self.assertEqual(struct.unpack(">i", body[24:28])[0], error, device)
        # The port mapper also answers over UDP.
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
            udp.settimeout(2)
            call = struct.pack(">IIIIII", 9, 0, 2, 100000, 2, 3) + bytes(16)
            udp.sendto(call + struct.pack(">IIII", 0x0607AF, 1, 6, 0), ("127.0.0.1", 111))
            reply = udp.recv(100)
            self.assertEqual(struct.unpack(">IIIIIII", reply[:28]), (9, 1, 0, 0, 0, 0, core))


if __name__ == "__main__":
    unittest.main()
