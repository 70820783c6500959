"""What others build on: the examples are built from nothing but an installation, and asked."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest
import urllib.request

import client
import harness

BUILD = pathlib.Path(os.environ["QN_BUILD_DIR"])
COMPILER = os.environ["QN_COMPILER"]
EXAMPLES = pathlib.Path(__file__).parents[2] / "examples"
# As distributions build: what is not called is left out, and nothing may stay undefined.
LINKING = ["-Wl,--as-needed", "-Wl,-z,defs"]
SANITIZE = [f"-fsanitize={os.environ['QN_SANITIZE']}"] if os.environ["QN_SANITIZE"] else []
BUILD_TIME = 300  # seconds for one program on a busy machine
DEVICE_INFO = "/KAVRO/System/deviceInfo"


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="qn-installed-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.prefix = cls.folder / "prefix"
        cls.run_tool("cmake", "--install", BUILD, "--prefix", cls.prefix)
        (library,) = cls.prefix.rglob("libqnplatform.so")
        cls.libraries = library.parent

    @classmethod
    def run_tool(cls, *command, **more):
        done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                              timeout=BUILD_TIME, **more)
        if done.returncode != 0:
            raise AssertionError(f"{command}\n{done.stdout[-4000:]}{done.stderr[-4000:]}")
        return done.stdout

    def by_cmake(self, example):
        build = self.folder / example
        flags = " ".join(["-Wall -Wextra -Wpedantic -Werror", *SANITIZE])
        self.run_tool("cmake", "-S", EXAMPLES / example, "-B", build, f"-DCMAKE_CXX_FLAGS={flags}",
                      f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_COMPILER={COMPILER}",
                      f"-DCMAKE_EXE_LINKER_FLAGS={' '.join(LINKING)}")
        self.run_tool("cmake", "--build", build)
        return build / example

    def by_pkg_config(self, example, *packages):
        program = self.folder / f"{example}-{'-'.join(packages)}"
        flags = self.run_tool("pkg-config", "--cflags", "--libs", *packages, env={
            **os.environ, "PKG_CONFIG_PATH": str(self.libraries / "pkgconfig")}).split()
        self.run_tool(COMPILER, "-std=c++20", *SANITIZE, *LINKING, EXAMPLES / example / "main.cpp",
                      *flags, f"-Wl,-rpath,{self.libraries}", "-o", program)
        return program

    def start(self, program, *arguments, **more):
        child = subprocess.Popen([program, *map(str, arguments)], text=True, stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)
        self.addCleanup(child.communicate)
        self.addCleanup(child.kill)
        return child

    def test_each_header_needs_only_what_is_installed(self):
        headers = [str(each.relative_to(self.prefix / "include"))
                   for each in (self.prefix / "include").rglob("*.h")]
        self.assertGreater(len(headers), 15)
        sources = []
        for number, header in enumerate(headers):
            sources.append(self.folder / f"{number}.cpp")
            sources[-1].write_text(f"#include <{header}>\n")
        self.run_tool(COMPILER, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic",
                      "-Werror", f"-I{self.prefix / 'include'}", "-I/usr/include/jsoncpp", *sources)

    def test_the_module_answers_on_a_platform_of_ones_own(self):
        (port,) = harness.free_ports(1)
        self.start(self.by_cmake("minimal-host"), port)
        url = f"http://127.0.0.1:{port}"
        answer = harness.wait_until(lambda: self.answer(url + DEVICE_INFO), 30, "an answer")
        self.assertIn(b"<deviceName>Gate</deviceName>", answer)
        with self.assertRaisesRegex(urllib.error.HTTPError, "404"):
            urllib.request.urlopen(url + "/nothing", timeout=client.ANSWER_TIME)

    @staticmethod
    def answer(url):
        try:
            return urllib.request.urlopen(url, timeout=client.ANSWER_TIME).read()
        except urllib.error.URLError:
            return None

    def check_embedded(self, program):
        devices = harness.Subdevices(1)
        self.addCleanup(devices.stop)
        port, picture_port = harness.free_ports(2)
        child = self.start(program, port, picture_port, devices.urls[0], self.folder / "data",
                           env={**os.environ, "KAVRO_PASSWORD": harness.PASSWORD})
        self.assertIn(f"serving 1 device(s) on 127.0.0.1 port {port}", child.stdout.readline())
        with client.Client(port, "admin", harness.PASSWORD) as one:
            self.assertEqual(one.get(DEVICE_INFO).xml().tag, "DeviceInfo")
            self.assertEqual(one.get("/hello").json(), {"hello": "127.0.0.1"}, "the program's own")
            channel = one.get("/KAVRO/Streaming/channels/101").body
            self.assertEqual(one.put("/KAVRO/Streaming/channels/101", channel).status, 200)
        self.assertEqual(child.stdout.readline(), "127.0.0.1 did PUT /KAVRO/Streaming/channels/101\n")
        _, log = child.communicate(timeout=30)
        self.assertEqual(child.returncode, 0, log)
        self.assertIn("stopped", log)

    def test_the_whole_gateway_in_a_program(self):
        self.check_embedded(self.by_cmake("embedded-gateway"))
        # The order in which the libraries are named makes no difference.
        for packages in (("qnkavro-platform", "qnkavro-protocol"),
                         ("qnkavro-protocol", "qnkavro-platform")):
            program = self.by_pkg_config("embedded-gateway", *packages)
        self.check_embedded(program)
        child = self.start(program, 70000, 1, "http://127.0.0.1:1", self.folder / "data")
        _, log = child.communicate(timeout=30)
        self.assertEqual(child.returncode, 1)
        self.assertIn("http.port: expected", log)
