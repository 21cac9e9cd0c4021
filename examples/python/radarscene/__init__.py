"""Consumers of the radar scene stream.

``radarscene.Subscriber`` reads one channel's scenes (``scene_pb2.Scene``
messages) from the radar scene provider on the system bus, follows the
provider through restarts if asked to, and counts what it received and
what it missed. ``supported_channels()`` and ``supported_classes(channel)``
ask the provider what it offers. Every failure is a ``radarscene.Error``.
``python3 -m radarscene.sub --help`` is a small consumer built on it.
"""

from radarscene.errors import (AccessDenied, BrokenRecord, Error, NoProvider, RecordTooLarge,
                               Timeout, UnknownChannel)
from radarscene.provider import supported_channels, supported_classes
from radarscene.stats import Statistics
from radarscene.subscriber import (CLOSED, ENDED, PROVIDER_GONE, SUBSCRIBED, SUBSCRIBED_AGAIN,
                                   Subscriber)

__all__ = [
    "AccessDenied", "BrokenRecord", "Error", "NoProvider", "RecordTooLarge", "Timeout",
    "UnknownChannel", "supported_channels", "supported_classes", "Statistics", "Subscriber",
    "SUBSCRIBED", "PROVIDER_GONE", "SUBSCRIBED_AGAIN", "ENDED", "CLOSED",
]
