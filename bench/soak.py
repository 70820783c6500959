#!/usr/bin/env python3
"""A gateway among devices that reboot, clients that come and go, and reloads.

Each device is a qn-subdevice process of its own, killed and started again on its port. Two streams
at most of each device: one that stays for the whole run, and one that is opened and dropped again
and again beside requests. Ends with 1 when a bound is violated: every alarm that a rebooted device
raises until one is seen must be seen within 2 s of the device's first answer, on the stream that
stays; every request and stream is answered; memory and descriptors of the gateway stay as they were
after a third of the run. Build the project first (Release).
Usage: soak.py --build build/release --reboots 1000 --devices 12
"""
import argparse
import collections
import os
import pathlib
import random
import re
import statistics
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "e2e"))

ALARM_SECONDS = 2.0    # from a device's first answer to its alarm at the client
PUSH_GAP = 0.1         # between the alarms that a device raises until one is seen
GROWTH = 1.10          # of memory and of descriptors, from the second third of the run to the last
MEMORY_MIB, DESCRIPTORS = 4, 8  # and so much more, whatever they were
EXPECTED = {200, 403, 502, 503, 504}  # 403: a stream is not dropped yet; 5xx: the device is away


class Device:
    """One device, its stream that stays, and the client that comes and goes."""

    def __init__(self, number, port):
        self.number, self.port, self.user = number, port, "admin" if number == 1 else f"u{number}"
        self.seen, self.raised = threading.Event(), ""
        self.boot()

    def boot(self):
        self.process = harness.Subdevices.__new__(harness.Subdevices)
        harness.Process.__init__(self.process, harness.BIN / "qn-subdevice", "--port", self.port,
                                 "--alarm-interval", "0")
        self.process.urls = [f"http://127.0.0.1:{self.port}"]
        harness.wait_until(self.answers, harness.START_TIME, "the device's answer")

    def answers(self):
        try:
            return self.process.state() is not None
        except OSError:
            return False

    def watch(self, soak):
        """The stream that stays: tells when an alarm of the present boot has come."""
        stream = client.AlertStream(soak.gateway.port, self.user, harness.PASSWORD)
        while part := stream.alarm():
            if self.raised and self.raised.encode() in part[1]:
                self.seen.set()
        if not soak.ended.is_set():
            raise AssertionError(f"the stream of device {self.number} has ended")

    def reboot(self, soak):
        self.process.child.kill()
        self.process.wait()
        time.sleep(random.uniform(0, 3))
        self.seen.clear()
        self.raised = f"boot{soak.next_boot()};"
        self.boot()
        answered = time.monotonic()
        while not self.seen.wait(PUSH_GAP):
            if time.monotonic() - answered > 10 * ALARM_SECONDS:
                raise AssertionError(f"no alarm of device {self.number}: its stream is stuck")
            self.process.order(alarm={"count": 1, "alert": {"channelName": self.raised}})
        soak.delays.append(time.monotonic() - answered)

    def come_and_go(self, soak):
        with client.Client(soak.gateway.port, self.user, harness.PASSWORD) as one:
            for _ in range(random.randrange(5)):
                soak.count(one.get("/KAVRO/System/deviceInfo").status)
        stream = client.AlertStream(soak.gateway.port, self.user, harness.PASSWORD)
        soak.count(stream.status, "stream ")
        if stream.status == 200 and random.random() < 0.5:
            stream.part()
        stream.close()
        time.sleep(random.uniform(0, 1))


class Soak:
    def __init__(self, args):
        self.ended, self.faults = threading.Event(), []
        self.boots, self.boots_lock, self.reboots = 0, threading.Lock(), args.reboots
        self.delays, self.answers, self.reloads = [], collections.Counter(), 0
        self.samples = []  # memory in MiB and descriptors
        ports = harness.free_ports(args.devices)
        self.devices = [Device(i + 1, port) for i, port in enumerate(ports)]
        self.tables = [{"index": str(d.number), "url": f"http://127.0.0.1:{d.port}"}
                       for d in self.devices]
        self.users = [harness.user(d.user, str(d.number)) for d in self.devices]
        self.gateway = harness.Gateway(self.tables, self.users)

    def next_boot(self):
        with self.boots_lock:
            self.boots += 1
            return self.boots

    def count(self, status, kind=""):
        self.answers[f"{kind}{status}"] += 1
        if status not in EXPECTED:
            raise AssertionError(f"{kind or 'request '}answered {status}")

    def reload(self):
        """A device and a user more, or not any more."""
        self.reloads += 1
        more = self.reloads % 2
        self.gateway.write_configuration(
            self.tables + [{"index": "more", "url": "http://127.0.0.1:1"}] * more,
            self.users + [harness.user("more", "more")] * more)
        said = self.gateway.reload()
        if not any("read again" in line for line in said):
            raise AssertionError(f"the reload was answered {said}")
        time.sleep(3)

    def sample(self):
        status = pathlib.Path(f"/proc/{self.gateway.child.pid}/status").read_text()
        self.samples.append((int(re.search(r"VmRSS:\s+(\d+)", status)[1]) / 1024,
                             self.gateway.descriptors()))
        time.sleep(0.5)

    def until_ended(self, action):
        def loop():
            try:
                while not self.ended.is_set():
                    action()
                    if self.boots >= self.reboots:
                        self.ended.set()
            except Exception as fault:  # pylint: disable=broad-except
                if not self.ended.is_set():
                    self.faults.append(f"{action.__qualname__}: {fault!r}")
                    self.ended.set()
        thread = threading.Thread(target=loop, daemon=True)
        thread.start()
        return thread

    def run(self):
        threads = []
        for device in self.devices:
            self.until_ended(lambda device=device: device.watch(self))
        time.sleep(2)
        for device in self.devices:
            threads += [self.until_ended(lambda device=device: device.reboot(self)),
                        self.until_ended(lambda device=device: device.come_and_go(self))]
        threads += [self.until_ended(self.reload), self.until_ended(self.sample)]
        for thread in threads:
            thread.join()

    def flatness(self, index, slack, what):
        third = len(self.samples) // 3
        if third == 0:
            return self.faults.append("too short a run to tell")
        before = statistics.median(sample[index] for sample in self.samples[third:2 * third])
        after = statistics.median(sample[index] for sample in self.samples[2 * third:])
        print(f"{what}: {before:.1f} in the second third of the run, {after:.1f} in the last, "
              f"{max(sample[index] for sample in self.samples):.1f} at most")
        if after > before * GROWTH + slack:
            self.faults.append(f"{what} grew")
        return None

    def report(self, seconds):
        delays = sorted(self.delays) or [0.0]
        print(f"{len(delays)} reboots of {len(self.devices)} devices, {self.reloads} reloads, in "
              f"{seconds:.0f} s; answers: {dict(sorted(self.answers.items()))}")
        print(f"first alarm after the device's answer: median {statistics.median(delays):.2f} s, "
              f"99 % {delays[len(delays) * 99 // 100]:.2f} s, longest {delays[-1]:.2f} s")
        late = sum(delay > ALARM_SECONDS + PUSH_GAP for delay in delays)
        if late:
            self.faults.append(f"{late} alarms came late")
        self.flatness(0, MEMORY_MIB, "memory in MiB")
        self.flatness(1, DESCRIPTORS, "descriptors")

    def stop(self):
        self.gateway.stop()
        for device in self.devices:
            device.process.child.kill()
            device.process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--reboots", type=int, default=1000)
    parser.add_argument("--devices", type=int, default=12)
    args = parser.parse_args()
    os.environ["QN_BIN_DIR"] = str(args.build / "bin")
    global client, harness  # the harness looks for the programs when it is imported
    import client, harness  # pylint: disable=import-outside-toplevel,multiple-imports
    soak, start = Soak(args), time.monotonic()
    try:
        soak.run()
        soak.report(time.monotonic() - start)
    finally:
        soak.stop()
    for fault in soak.faults:
        print("VIOLATED:", fault)
    return 1 if soak.faults else 0


if __name__ == "__main__":
    sys.exit(main())
