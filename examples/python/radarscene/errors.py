"""The exceptions of the radarscene package: one base class, one subclass per cause."""


class Error(Exception):
    """A failure of the scene stream or of a question to the provider.

    ``name`` is the D-Bus error name when the provider or the bus answered
    with an error (else None) and ``message`` its message or the reason in
    words; ``str()`` joins them as "name: message".
    """

    def __init__(self, message, name=None):
        super().__init__(f"{name}: {message}" if name else message)
        self.name = name
        self.message = message


class AccessDenied(Error):
    """The provider's access check refused this process's user."""


class UnknownChannel(Error):
    """The provider does not serve the channel asked for."""


class NoProvider(Error):
    """No radar scene provider owns "com.tessel.RadarSceneProvider1" on the bus."""


class RecordTooLarge(Error):
    """A record announced more bytes than the subscriber's ``max_record``; the stream ended."""


class BrokenRecord(Error):
    """A record whose length word or scene cannot be read; the stream ended."""


class Timeout(Error, TimeoutError):
    """No scene arrived within the read timeout; the stream goes on."""
