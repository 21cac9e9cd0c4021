"""What a subscriber received and what it missed."""

from collections import namedtuple

Statistics = namedtuple("Statistics", "scenes bytes missing replaced")
Statistics.__doc__ = """A subscriber's counters since it was opened.

scenes: scenes received; bytes: their records' bytes, length words included
(as the provider counts them); missing: scenes that the gaps between scene
times show to be missing; replaced: frames that the provider replaced by a
newer one before they reached this subscriber, from its Statistics object.
"""


class SceneGaps:
    """Counts the scenes missing between scene times, as radarscene-sub --stats does.

    The interval between scenes is learnt as a smoothed mean; a gap over 1.5
    of it counts its rounded number of intervals less one as missing and
    leaves the mean as it was. Scene times that do not increase (another
    clock, a replay started again) are skipped.
    """

    def __init__(self):
        self.missing = 0
        self.period = 0.0
        self.last_time = 0

    def add(self, time):
        if self.last_time and time > self.last_time:
            gap = time - self.last_time
            if self.period > 0 and gap > 1.5 * self.period:
                self.missing += int(gap / self.period + 0.5) - 1  # lround: halves go up
            else:
                self.period = 0.9 * self.period + 0.1 * gap if self.period > 0 else float(gap)
        self.last_time = time

    def restart(self):
        """A new subscription: the time the provider was away is no gap."""
        self.last_time = 0
