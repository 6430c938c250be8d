"""Runs the tunnels of examples/tls on the loopback interface: tunnel_test.py VEK FOLDER-OF-THE-EXAMPLE.

Ends with 77, which the test driver reads as skipped, if stunnel or openssl is not installed.
"""
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

VEK = ""
EXAMPLE = ""
PATIENCE = 20


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("not in time: " + what)
        time.sleep(0.02)


def listens(port):
    """Whether somebody listens there, read from the kernel: a connection would be one too many for the test."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in list(table)[1:])


def frame(kind, source, destination, body=b"", command=0):
    """A message of the pipe protocol; source and destination are (id, handle)."""
    return struct.pack(">BBHIHHHHBBHHHI", 1, kind, 0, command, source[0], destination[0], source[1], destination[1],
                       5, 5, 1, 1, 28, len(body)) + body


class Pipe:
    """A process that speaks the protocol by hand."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)

    def register(self, who):
        """The status that the gateway answers with; None if the connection ends without an answer."""
        try:
            self.socket.sendall(frame(3, who, (0, 0), struct.pack(">I", 0)))
            answer = self.read(32)
        except ConnectionError:
            return None
        return struct.unpack(">i", answer[28:])[0] if len(answer) == 32 else None

    def read(self, length):
        data = b""
        while len(data) < length:
            part = self.socket.recv(min(65536, length - len(data)))
            if not part:
                break
            data += part
        return data


class Program:
    """A child process with its output in a file."""

    def __init__(self, folder, name, *words):
        self.log_name = os.path.join(folder, name + ".log")
        with open(self.log_name, "wb") as log:
            self.process = subprocess.Popen(words, cwd=folder, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=subprocess.STDOUT)

    def log(self):
        with open(self.log_name, encoding="utf-8", errors="replace") as log:
            return log.read()

    def end(self):
        self.process.terminate()
        self.process.wait()


class TunnelTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="zol-tls-")
        cls.programs = []
        subprocess.run([os.path.join(EXAMPLE, "make-certificates"), os.path.join(cls.folder, "certificates")],
                       check=True, stdout=subprocess.DEVNULL)
        # 7 only through the tunnel, 9 only from this machine itself
        cls.vek = cls.start("vek", VEK, "--listen", "127.0.0.1:0", "--http", "0", "--allow-id", "7=127.0.0.2",
                            "--allow-id", "9=127.0.0.1")
        wait_until(lambda: "status on port" in cls.vek.log(), "the gateway listens")
        cls.vek_port = int(re.search(r"listening on 127\.0\.0\.1:(\d+)", cls.vek.log()).group(1))
        cls.status_port = int(re.search(r"status on port (\d+)", cls.vek.log()).group(1))
        cls.tls_port = cls.tunnel_end("gateway")
        cls.good_port = cls.tunnel_end("process")

    @classmethod
    def tearDownClass(cls):
        for program in reversed(cls.programs):
            program.end()
        shutil.rmtree(cls.folder, ignore_errors=True)

    @classmethod
    def start(cls, name, *words):
        program = Program(cls.folder, name, *words)
        cls.programs.append(program)
        return program

    @classmethod
    def tunnel_end(cls, end, certificate=None, leave_out=()):
        """Starts stunnel with the configuration of the example, on a free port, and returns that."""
        port = free_port()
        with open(os.path.join(EXAMPLE, end + ".conf"), encoding="ascii") as file:
            text = file.read()
        target = cls.vek_port if end == "gateway" else getattr(cls, "tls_port")
        text = re.sub(r"(?m)^accept = .*", f"accept = 127.0.0.1:{port}", text)
        text = re.sub(r"(?m)^connect = .*", f"connect = 127.0.0.1:{target}", text)
        if certificate:
            text = re.sub(r"certificates/(process|gateway)\.(crt|key)", rf"certificates/{certificate}.\2", text)
        for key in leave_out:
            text = re.sub(rf"(?m)^{key} = .*\n", "", text)
        name = f"{end}-{certificate or 'own'}-{port}"
        with open(os.path.join(cls.folder, name + ".conf"), "w", encoding="ascii") as file:
            file.write(text)
        program = cls.start(name, shutil.which("stunnel") or shutil.which("stunnel4"), name + ".conf")
        wait_until(lambda: listens(port) or program.process.poll() is not None, "stunnel listens")
        assert program.process.poll() is None, program.log()
        return port

    def pipe(self, port):
        pipe = Pipe(port)
        self.addCleanup(pipe.socket.close)
        return pipe

    def connections(self):
        """How many the gateway has accepted so far, and not half a second ago, as an answer may be."""
        time.sleep(0.6)
        with urllib.request.urlopen(f"http://127.0.0.1:{self.status_port}/metrics", timeout=PATIENCE) as answer:
            return re.search(r"(?m)^zol_vek_connections_total (\d+)$", answer.read().decode()).group(1)

    def test_messages_pass_both_ways(self):
        inside, outside = self.pipe(self.vek_port), self.pipe(self.good_port)
        self.assertEqual(0, inside.register((9, 1)))
        self.assertEqual(0, outside.register((7, 1)))
        large = bytes(range(256)) * 8192  # two MiB, many TLS records
        for sender, who, receiver, whom in ((inside, (9, 1), outside, (7, 1)), (outside, (7, 1), inside, (9, 1))):
            for number in range(200):
                sender.socket.sendall(frame(1, who, whom, b"%06d" % number))
            sender.socket.sendall(frame(2, who, whom, large))
            for number in range(200):
                self.assertEqual(b"%06d" % number, receiver.read(34)[28:])
            self.assertEqual(large, receiver.read(28 + len(large))[28:])
        outside.socket.close()
        again = self.pipe(self.good_port)  # the end of a pipe passes the tunnel too, so that its key is free again
        wait_until(lambda: re.search(r"process 7 handle 1 \(.*\) is down", self.vek.log()),
                   "the gateway sees the end of the pipe")
        self.assertEqual(0, again.register((7, 1)))

    def test_the_tunnel_is_an_address_of_its_own(self):
        self.assertEqual(-8, self.pipe(self.vek_port).register((7, 20)), "7 without the tunnel")
        self.assertEqual(-8, self.pipe(self.good_port).register((9, 20)), "9 through the tunnel")
        self.assertEqual(0, self.pipe(self.good_port).register((7, 20)))

    def test_strangers_are_cut_off_before_the_gateway(self):
        cases = (("no certificate", None, ("cert", "key")), ("of another CA", "foreign", ()),
                 ("expired", "expired", ()))
        for name, certificate, leave_out in cases:
            with self.subTest(name):
                port = self.tunnel_end("process", certificate, leave_out)
                before = self.connections()
                self.assertIsNone(self.pipe(port).register((7, 30)))
                self.assertEqual(before, self.connections(), "the gateway saw something of it")
        with self.subTest("no TLS at all"):
            before = self.connections()
            self.assertIsNone(self.pipe(self.tls_port).register((7, 31)))
            self.assertEqual(before, self.connections(), "the gateway saw something of it")
        self.assertEqual(0, self.pipe(self.good_port).register((7, 32)), "the tunnel works on after them")

    def test_a_false_gateway_is_refused(self):
        cases = (("of another CA", "foreign-gateway", ("verifyChain", "requireCert")),
                 ("one of ours that is not the gateway", "process", ()))
        own = self.tls_port
        for name, certificate, leave_out in cases:
            with self.subTest(name):
                type(self).tls_port = self.tunnel_end("gateway", certificate, leave_out)
                try:
                    port = self.tunnel_end("process")
                finally:
                    type(self).tls_port = own
                self.assertIsNone(self.pipe(port).register((7, 40)))


if __name__ == "__main__":
    VEK, EXAMPLE = sys.argv[1:3]
    if shutil.which("openssl") is None or (shutil.which("stunnel") or shutil.which("stunnel4")) is None:
        print("skipped: stunnel or openssl is not installed (packages stunnel4, openssl)")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
