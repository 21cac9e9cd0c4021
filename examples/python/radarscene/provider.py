"""The provider's D-Bus names and the questions any process may ask it."""

import dbus

from radarscene.errors import AccessDenied, Error, NoProvider

SERVICE = "com.tessel.RadarSceneProvider1"
PATH = "/com/tessel/RadarSceneProvider1"
INTERFACE = "com.tessel.RadarSceneProvider1.Scene"
STATISTICS_PATH = PATH + "/Statistics"
STATISTICS_INTERFACE = "com.tessel.RadarSceneProvider1.Statistics"
CALL_TIMEOUT = 10.0  # seconds for a question the provider answers at once

# The names under which a provider is not there (yet): its name has no owner,
# or its owner left the bus before it answered.
ABSENT = {
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply",
}


def open_bus(bus):
    """The caller's bus, or a private connection to the system bus
    (DBUS_SYSTEM_BUS_ADDRESS chooses another) that the caller must close."""
    try:
        return bus if bus is not None else dbus.SystemBus(private=True)
    except dbus.DBusException as error:
        raise translate(error) from None


def translate(error):
    """The package's exception for a D-Bus error, keeping its name and message."""
    name = error.get_dbus_name()
    message = error.get_dbus_message() or str(error)
    if name == "org.freedesktop.DBus.Error.AccessDenied":
        return AccessDenied(message, name)
    if name in ABSENT:
        return NoProvider(message, name)
    return Error(message, name)


def owner(bus):
    """The unique bus name of the provider now, so that every later call
    reaches the process that answered the first one."""
    try:
        return str(bus.get_name_owner(SERVICE))
    except dbus.DBusException as error:
        failure = translate(error)
        if isinstance(failure, NoProvider):
            failure = NoProvider(f"no radar scene provider {SERVICE} on the bus", failure.name)
        raise failure from None


def call(bus, destination, method, signature="", args=(), timeout=CALL_TIMEOUT,
         path=PATH, interface=INTERFACE):
    try:
        return bus.call_blocking(destination, path, interface, method, signature, args,
                                 timeout=timeout)
    except dbus.DBusException as error:
        raise translate(error) from None


def _ask(bus, method, signature="", args=()):
    own = open_bus(bus)
    try:
        return call(own, owner(own), method, signature, args)
    finally:
        if bus is None:
            own.close()


def supported_channels(bus=None):
    """The channels the provider serves, as a list of ints.

    Raises NoProvider, AccessDenied or Error; ``bus`` is a dbus-python
    connection to use instead of a private one to the system bus.
    """
    return [int(channel) for channel in _ask(bus, "GetSupportedChannels")]


def supported_classes(channel=0, bus=None):
    """The object classes of ``channel`` as a dict from class id to name."""
    reply = _ask(bus, "GetObjectClassifications", "i", (channel,))
    return {int(key): str(value) for key, value in reply.items()}


def session_row(bus, destination, session):
    """The provider's row of ``session`` from "GetSessions" as a dict, or None."""
    rows = call(bus, destination, "GetSessions", path=STATISTICS_PATH,
                interface=STATISTICS_INTERFACE)
    for row in rows:
        if int(row[0]) == session:
            keys = ("id", "channel", "subscribed_usec", "pid", "comm", "scenes", "replaced",
                    "bytes", "state")
            return {key: (str(value) if key in ("comm", "state") else int(value))
                    for key, value in zip(keys, row)}
    return None
