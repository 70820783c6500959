"""10,000 operations a second at a gateway that sends its log to PostgreSQL, and at one that keeps it
in its own file. Run by cluster.py."""
import threading
import time

import cluster_requests
import members
import proxy_comparison

RATE = 10000
PATH = "/KAVRO/System/time?format=json"
BODY = '{"Time": {"timeMode": "NTP"}}'
ROWS = "SELECT count(*) FROM operation_log"
ARRIVAL = 30  # seconds that the last rows may take


class Watch(threading.Thread):
    """How many rows wait at most while it looks."""

    def __init__(self, gateway):
        super().__init__(daemon=True)
        self.gateway, self.most, self.over = gateway, 0, threading.Event()
        self.start()

    def run(self):
        while not self.over.wait(0.5):
            found = members.metrics(self.gateway)
            self.most = max(self.most, found["qn_operation_log_unsent"])


def run(running, args):
    device = cluster_requests.stand_in(running)
    user = {"name": "admin", "password": proxy_comparison.PASSWORD, "device": "1"}
    kept = {"storage": {"operation_log_rows": 1000000}}
    postgres = running.postgres()
    gateways = {"with PostgreSQL": running.member([device], [user], postgres=postgres, sections=kept),
                "file alone": running.member([device], [user], sections=kept)}
    archived = gateways["with PostgreSQL"]
    members.await_engines(archived)
    arguments = cluster_requests.load_arguments(args, args.seconds or 4, PATH)
    sent, arrivals = [], []

    def measure(gateway):
        found = cluster_requests.load(gateway, arguments, "--body", BODY, "--rate", str(RATE))
        if gateway is archived:
            sent.append(found["requests"])
            arrivals.append(arrival(postgres, sum(sent)))
        return found

    cluster_requests.in_turn(gateways, 1, measure)  # warm
    arrivals.clear()
    watch = Watch(archived)
    found = cluster_requests.in_turn(gateways, args.rounds or 6, measure)
    watch.over.set()
    rows, sent = int(postgres.ask(ROWS)), sum(sent)
    print(f"rows: {rows} of {sent:.0f} in the database, at most {watch.most:.0f} waited; all there "
          f"{max(arrivals):.2f} s after the last request at the latest")
    print("operations a second: " + ", ".join(
        f"{name} {min(each['rps'] for each in rounds):.0f} at least" for name, rounds in found.items()))
    title = "operations, 10,000 rows/s"
    return cluster_requests.ratios(found, title) + [
        members.row(f"{title}: lost or twice", [abs(sent - rows)], "faults")]


def arrival(postgres, sent):
    """Seconds until so many rows are there; at most ARRIVAL, then some are missing."""
    begin = time.monotonic()
    while int(postgres.ask(ROWS)) < sent and time.monotonic() - begin < ARRIVAL:
        time.sleep(0.02)
    return time.monotonic() - begin
