import sys

import radarscene

try:
    print(f"channels {radarscene.supported_channels()}, "
          f"classes {radarscene.supported_classes(0)}")
    with radarscene.Subscriber(channel=0, bounding_box=True, follow=True, timeout=10) as scenes:
        for _, scene in zip(range(5), scenes):
            ids = [o.id for o in scene.objects]
            print(f"t={scene.time / 1e9:.3f} s  objects {ids}")
        counters = scenes.statistics()
    print(f"received {counters.scenes} scenes, {counters.bytes} bytes; "
          f"missing {counters.missing}, replaced {counters.replaced}")
except radarscene.Error as error:
    sys.exit(f"consumer: {error}")
