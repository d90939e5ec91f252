"""libtarnwell through ctypes: finding it, its prototypes, its statuses."""

import ctypes
import enum
import functools
import os
from pathlib import Path

_HANDLE = ctypes.c_void_p
_TEXT = ctypes.c_char_p
# A `char **out` is read as a void pointer: a c_char_p would hand back a
# copy and lose the address tarnwell_free needs.
_OUT = ctypes.POINTER(ctypes.c_void_p)
_INT = ctypes.c_int

_PROTOTYPES = {
    "open": (_TEXT, ctypes.POINTER(_HANDLE)),
    "close": (_HANDLE,),
    "set_now": (_HANDLE, _TEXT),
    "run": (_HANDLE, _TEXT, _OUT),
    "add_event": (_HANDLE, _TEXT, _TEXT, _TEXT, _OUT),
    "edit_event": (_HANDLE, _TEXT, _TEXT, _TEXT, _TEXT),
    "delete_event": (_HANDLE, _TEXT, _TEXT),
    "list_events": (_HANDLE, _TEXT, _TEXT, _TEXT, _OUT),
    "import_file": (_HANDLE, _TEXT, _TEXT, _OUT),
    "day": (_HANDLE, _TEXT, _OUT),
    "days": (_HANDLE, _TEXT, _TEXT, _OUT),
    "summary": (_HANDLE, _TEXT, _INT, _OUT),
    "chart": (_HANDLE, _TEXT, _TEXT, _TEXT, _OUT),
    "streaks": (_HANDLE, _OUT),
    "list_tags": (_HANDLE, _INT, _OUT),
    "add_tag": (_HANDLE, _TEXT, _OUT),
    "edit_tag": (_HANDLE, _TEXT, _TEXT, _OUT),
    "delete_tag": (_HANDLE, _TEXT, _TEXT),
    "add_focus": (_HANDLE, _TEXT, _OUT),
    "list_focuses": (_HANDLE, _TEXT, _TEXT, _OUT),
    "delete_focus": (_HANDLE, _TEXT),
    "settings": (_HANDLE, _OUT),
    "set_setting": (_HANDLE, _TEXT, _TEXT, _OUT),
    "set_sleep_source": (_HANDLE, _TEXT, _TEXT),
    "cloud_sign_in": (_HANDLE, _TEXT, _OUT),
    "cloud_sign_out": (_HANDLE,),
    "sync_pull": (_HANDLE, _OUT),
    "sync_push": (_HANDLE, _OUT),
    "sync_status": (_HANDLE, _OUT),
    "widget_summaries": (_HANDLE, _OUT),
    "build_link": (_HANDLE, _TEXT, _OUT),
    "read_link": (_HANDLE, _TEXT, _OUT),
    "handle_intent": (_HANDLE, _TEXT, _TEXT, _OUT),
}


class Status(enum.IntEnum):
    """What a call of the library came to (tarnwell_status)."""

    OK = 0
    INVALID_ARGUMENT = 1
    NOT_FOUND = 2
    BUSY = 3
    FAILED = 4


class TarnwellError(Exception):
    """A call the library refused or could not do; str() is its message."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status


class InvalidArgument(TarnwellError, ValueError):
    """A date, id, option or value the library does not take."""


class NotFound(TarnwellError, LookupError):
    """No record has the id."""


class Busy(TarnwellError):
    """Another installation is open in this process."""


class Failed(TarnwellError):
    """The store, the health store or the cloud failed."""


_ERRORS = {
    Status.INVALID_ARGUMENT: InvalidArgument,
    Status.NOT_FOUND: NotFound,
    Status.BUSY: Busy,
    Status.FAILED: Failed,
}


def _load():
    explicit = os.environ.get("TARNWELL_LIBRARY")
    if explicit:
        return ctypes.CDLL(explicit)
    # Installed, the package is <prefix>/lib/python/tarnwell and the library
    # <prefix>/lib/libtarnwell.so.0.1: the one of the same prefix comes first.
    libdir = Path(__file__).resolve().parent.parent.parent
    for name in ("libtarnwell.so.0.1", "libtarnwell.so"):
        if (libdir / name).exists():
            return ctypes.CDLL(str(libdir / name))
    try:
        return ctypes.CDLL("libtarnwell.so.0.1")
    except OSError as error:
        raise OSError(f"{error}; set TARNWELL_LIBRARY to the path of libtarnwell.so") from error


@functools.cache
def library():
    """The loaded library, its functions declared."""
    lib = _load()
    lib.tarnwell_version.argtypes = ()
    lib.tarnwell_version.restype = ctypes.c_char_p
    lib.tarnwell_last_error.argtypes = ()
    lib.tarnwell_last_error.restype = ctypes.c_char_p
    lib.tarnwell_free.argtypes = (ctypes.c_void_p,)
    lib.tarnwell_free.restype = None
    for name, argtypes in _PROTOTYPES.items():
        function = getattr(lib, "tarnwell_" + name)
        function.argtypes = argtypes
        function.restype = _INT
    return lib


def _error(status):
    # Read at once: the message is the calling thread's until its next call.
    message = library().tarnwell_last_error().decode("utf-8", "replace")
    try:
        status = Status(status)
    except ValueError:
        return TarnwellError(status, message)
    return _ERRORS.get(status, TarnwellError)(status, message)


def _argument(value):
    if not isinstance(value, str):
        return value
    # ctypes would cut the text at a NUL without a word: the library would
    # read another date or id than the one given.
    if "\0" in value:
        raise InvalidArgument(Status.INVALID_ARGUMENT, f"{value!r} holds a NUL character")
    return value.encode("utf-8")


def call(name, *arguments):
    """Calls tarnwell_NAME with `arguments` (str as UTF-8); raises on failure."""
    status = getattr(library(), "tarnwell_" + name)(*map(_argument, arguments))
    if status != Status.OK:
        raise _error(status)


def answer(name, *arguments):
    """Calls tarnwell_NAME, which answers through its last parameter: that text."""
    out = ctypes.c_void_p()
    try:
        call(name, *arguments, ctypes.byref(out))
        return ctypes.string_at(out.value).decode("utf-8")
    finally:
        library().tarnwell_free(out.value)


def version():
    """The library's version, "0.1.0"."""
    return library().tarnwell_version().decode("ascii")
