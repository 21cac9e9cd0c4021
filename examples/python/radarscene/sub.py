"""Subscribes to a channel of the radar scene provider on the system bus and
prints one line per scene: its time, its number of objects and their ids.

Built on radarscene.Subscriber; run it as python3 -m radarscene.sub.
"""

import argparse
import signal
import sys

import radarscene


def main():
    parser = argparse.ArgumentParser(prog="python3 -m radarscene.sub",
                                     description=__doc__.split("\n\n")[0].replace("\n", " "))
    parser.add_argument("--channel", type=int, default=0, help="radar channel (default 0)")
    parser.add_argument("--count", type=int, default=10, help="scenes to show (default 10)")
    parser.add_argument("--follow", action="store_true",
                        help="wait for the provider and follow it through restarts")
    parser.add_argument("--stats", action="store_true", help="end with the counters")
    for flag, feature in (("--bbox", "bounding_box"), ("--polygon", "polygon"),
                          ("--velocity", "velocity"), ("--geo", "geolocation"), ("--raw", "raw")):
        parser.add_argument(flag, dest=feature, action="store_true",
                            help=f"scenes carry {feature.replace('_', ' ')}")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, signal.default_int_handler)

    features = {f: getattr(args, f) for f in radarscene.subscriber.FEATURE_NAMES}
    def report(state):
        if state != radarscene.CLOSED:
            print(f"radarscene.sub: {state}", file=sys.stderr)

    with radarscene.Subscriber(args.channel, follow=args.follow, **features,
                               on_state=report if args.follow else None) as scenes:
        try:
            for _, scene in zip(range(args.count), scenes):
                ids = " ".join(str(o.id) for o in scene.objects)
                print(f"t={scene.time / 1e9:.3f} s  {len(scene.objects)} objects: {ids}",
                      flush=True)
        except KeyboardInterrupt:
            pass
        if args.stats:
            print("scenes {} bytes {} missing {} replaced {}".format(*scenes.statistics()))


if __name__ == "__main__":
    try:
        main()
    except radarscene.Error as error:
        sys.exit(f"radarscene.sub: {error}")
