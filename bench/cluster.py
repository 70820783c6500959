#!/usr/bin/env python3
"""What several gateways cost and what holds when parts of them fail, on real engines on free ports.

--scene requests  the translated GET with the cluster's keys and without, in turn
        alarms    2,000 alarms a second of one gateway's devices to clients of another
        outage    60 s without Redis: good clients that are refused, replays that are accepted
        kills     1,000 kill -9 of gateways: what is left in Redis
        rows      requests while 10,000 rows a second go into PostgreSQL, and without

Each prints what it found and, with --json, adds rows for plot.py. Build the project first (Release).
Needs redis-server, and PostgreSQL 15 for requests and rows. Usage: cluster.py --scene alarms
"""
import argparse
import importlib
import json
import os
import pathlib
import resource

SCENES = ("requests", "alarms", "outage", "kills", "rows")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--scene", choices=SCENES, required=True)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--json", type=pathlib.Path, help="file that the results are added to")
    parser.add_argument("--rounds", type=int, help="or kills; each scene has its own default")
    parser.add_argument("--seconds", type=int, help="of a round or the outage, or to wait for expiries after the kills")
    parser.add_argument("--devices", type=int, default=100, help="of the scene alarms")
    args = parser.parse_args()
    os.environ["QN_BIN_DIR"] = str(args.build / "bin")
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    import members  # reads the environment
    scene = importlib.import_module(f"cluster_{args.scene}")
    print(f"{args.scene}: load average {os.getloadavg()[0]:.1f}", flush=True)
    with members.Running() as running:
        rows = scene.run(running, args)
    for each in rows:
        print(f"{each['row']}: {each['ratio']:.3f} {each['unit']}"
              f" ({each['low']:.3f} to {each['high']:.3f})")
    if args.json:
        before = json.loads(args.json.read_text()) if args.json.exists() else []
        args.json.write_text(json.dumps(before + rows, indent=1))


if __name__ == "__main__":
    main()
