"""The SDK as Python sees it: a configuration, an SDK object and its callbacks."""

from __future__ import annotations

import ctypes
import dataclasses
import enum
import os
import sys
import threading
from typing import Callable, Optional

from . import _library as c


class Status(enum.IntEnum):
    """The C library's status codes."""

    OK = 0
    INVALID_ARGUMENT = 1
    NOT_INITIALIZED = 2
    WRONG_THREAD = 3
    IO_ERROR = 4
    TIMED_OUT = 5
    OUT_OF_MEMORY = 6
    INTERNAL = 7


class Lifecycle(enum.IntEnum):
    """The application's lifecycle events that a host posts to the SDK."""

    WILL_TERMINATE = 0
    DID_ENTER_BACKGROUND = 1
    WILL_ENTER_FOREGROUND = 2
    DID_RECEIVE_MEMORY_WARNING = 3
    DID_BECOME_ACTIVE = 4


class RovalisError(Exception):
    """A call the SDK refused or could not carry out: the C library's status and message."""

    def __init__(self, status: int, message: str):
        self.status = Status(status)
        self.message = message
        super().__init__(f"{self.status.name}: {message}")


@dataclasses.dataclass(frozen=True)
class Location:
    """A fix that the SDK just stored as a waypoint (degrees, metres, seconds since 1970)."""

    latitude: float
    longitude: float
    horizontal_accuracy: float
    altitude: float
    vertical_accuracy: float
    speed: float
    course: float
    timestamp: float


@dataclasses.dataclass(frozen=True)
class UploadResult:
    """One upload: the times of its oldest and newest events and, on failure, the error."""

    tracked_from: float
    tracked_to: float
    succeeded: bool
    error_domain: Optional[str] = None
    error_code: int = 0
    error_message: Optional[str] = None


@dataclasses.dataclass(frozen=True)
class SleepRegions:
    """The regions laid around a stay (see the C header for the ranges)."""

    center_radius: float = 150.0
    spread_factor: float = 1.2
    outer_region_count: int = 6
    identifier_prefix: str = "RVLSleepRegion"


@dataclasses.dataclass(frozen=True)
class SimulatedDevice:
    """A simulated phone replaying a trace (GPX or CSV), with an optional scenario file."""

    trace: str | os.PathLike
    scenario: Optional[str | os.PathLike] = None
    seed: int = 1


@dataclasses.dataclass
class Config:
    """What the host tells the SDK about itself. Everything has a default.

    display_name defaults to the program's name; data_root to
    $XDG_DATA_HOME/rovalis/<identifier>; wifi_only, when given, is applied right after
    initialisation (the SDK keeps it across launches); info holds the host's Info settings,
    such as {"RV_SDK_BEACON_TRACKING_ENABLED": True}. Without simulated_device the SDK runs on
    the Linux platform.
    """

    display_name: Optional[str] = None
    version: str = ""
    build: str = ""
    identifier: Optional[str] = None
    info: dict[str, bool | str] = dataclasses.field(default_factory=dict)
    data_root: Optional[str | os.PathLike] = None
    service_url: Optional[str] = None
    wifi_only: Optional[bool] = None
    sleep_regions: Optional[SleepRegions] = None
    simulated_device: Optional[SimulatedDevice] = None


def _text(value) -> Optional[bytes]:
    return None if value is None else os.fsencode(value)


def _make_c_config(lib, config: Config):
    """A C configuration from the Python one; the caller frees it."""
    handle = lib.rovalis_config_new()
    if not handle:
        raise MemoryError("no memory for a configuration")

    def check(status: int) -> None:
        if status != Status.OK:
            raise RovalisError(status, lib.rovalis_config_last_error(handle).decode(errors="replace"))

    try:
        if (config.display_name, config.version, config.build, config.identifier) != (None, "", "", None):
            name = config.display_name
            if name is None:
                name = os.path.basename(sys.argv[0]) or "python"
            check(lib.rovalis_config_set_host(handle, _text(name), _text(config.version), _text(config.build),
                                              _text(config.identifier)))
        for key, value in config.info.items():
            if isinstance(value, bool):
                check(lib.rovalis_config_set_info_bool(handle, _text(key), value))
            else:
                check(lib.rovalis_config_set_info_string(handle, _text(key), _text(value)))
        if config.data_root is not None:
            check(lib.rovalis_config_set_data_root(handle, _text(config.data_root)))
        if config.service_url is not None:
            check(lib.rovalis_config_set_service_url(handle, _text(config.service_url)))
        if config.wifi_only is not None:
            check(lib.rovalis_config_set_wifi_only(handle, config.wifi_only))
        if config.sleep_regions is not None:
            regions = config.sleep_regions
            check(lib.rovalis_config_set_sleep_regions(handle, regions.center_radius, regions.spread_factor,
                                                       regions.outer_region_count, _text(regions.identifier_prefix)))
        if config.simulated_device is not None:
            device = config.simulated_device
            check(lib.rovalis_config_use_simulated_device(handle, _text(device.trace), _text(device.scenario),
                                                          device.seed))
    except BaseException:
        lib.rovalis_config_free(handle)
        raise
    return handle


class Sdk:
    """One SDK instance. A context manager: leaving the block closes it.

    Callbacks (on_tracking_status, on_authorization, on_location, on_upload) run on the SDK's
    main run loop: on Linux a thread of the SDK, on the simulated device the thread that runs
    it, inside its calls. They may call the SDK's methods, except clear_data (which raises
    WRONG_THREAD there: use clear_data_async) and close. An exception raised in a callback is
    printed and dropped, as ctypes does. A callback is kept alive while it is registered.

    On the simulated device, use the object from the thread that made it.
    """

    def __init__(self, config: Optional[Config] = None):
        self._lib = c.library()
        c_config = _make_c_config(self._lib, config or Config())
        handle = ctypes.c_void_p()
        status = self._lib.rovalis_sdk_new(c_config, ctypes.byref(handle))
        message = self._lib.rovalis_config_last_error(c_config).decode(errors="replace")
        self._lib.rovalis_config_free(c_config)
        if status != Status.OK:
            raise RovalisError(status, message)
        self._handle = handle
        self._callbacks: dict[str, object] = {}
        # Completions of clear_data_async, kept until the SDK is closed.
        self._completions: list[object] = []
        self._lock = threading.Lock()

    # ---- lifetime

    def close(self) -> None:
        """Ends the instance as the end of the app's process would; what is buffered is written."""
        handle, self._handle = self._handle, None
        if handle:
            self._lib.rovalis_sdk_free(handle)
        self._callbacks.clear()
        self._completions.clear()

    def __enter__(self) -> "Sdk":
        return self

    def __exit__(self, *exc_info) -> None:
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            self.close()

    def _call(self, function, *arguments) -> None:
        # A closed SDK passes NULL, which the C library refuses with its own message.
        status = function(self._handle, *arguments)
        if status != Status.OK:
            raise RovalisError(status, self._lib.rovalis_last_error(self._handle).decode(errors="replace"))

    def _flag(self, function) -> bool:
        value = ctypes.c_bool()
        self._call(function, ctypes.byref(value))
        return value.value

    # ---- the SDK

    def initialize(self) -> None:
        self._call(self._lib.rovalis_initialize)

    def set_user_token(self, token: Optional[str]) -> None:
        """Three dot-separated parts (header.payload.signature); None removes the token."""
        self._call(self._lib.rovalis_set_user_token, _text(token))

    def start(self) -> None:
        self._call(self._lib.rovalis_start)

    def stop(self) -> None:
        self._call(self._lib.rovalis_stop)

    @property
    def is_tracking_active(self) -> bool:
        return self._flag(self._lib.rovalis_is_tracking_active)

    @property
    def wifi_only(self) -> bool:
        return self._flag(self._lib.rovalis_wifi_only)

    @wifi_only.setter
    def wifi_only(self, value: bool) -> None:
        self._call(self._lib.rovalis_set_wifi_only, bool(value))

    @property
    def has_required_permissions(self) -> bool:
        return self._flag(self._lib.rovalis_has_required_permissions)

    @property
    def version(self) -> str:
        text = ctypes.c_char_p()
        self._call(self._lib.rovalis_version, ctypes.byref(text))
        return text.value.decode()

    def clear_data(self) -> None:
        """Deletes every stored event and returns when that is done."""
        self._call(self._lib.rovalis_clear_data)

    def clear_data_async(self, done: Optional[Callable[[], None]] = None) -> None:
        """Deletes every stored event, then calls done() on the main run loop."""
        completion = c.DoneCallback(lambda _: done()) if done else ctypes.cast(None, c.DoneCallback)
        with self._lock:
            self._completions.append(completion)
        self._call(self._lib.rovalis_clear_data_async, completion, None)

    def post_lifecycle(self, event: Lifecycle) -> None:
        self._call(self._lib.rovalis_post_lifecycle, int(event))

    # ---- callbacks: None removes one

    def _register(self, kind: str, setter, c_type, callback, adapt) -> None:
        wrapped = c_type(adapt(callback)) if callback else ctypes.cast(None, c_type)
        self._call(setter, wrapped, None)
        # Once the setter has returned, the callback it replaced is no longer running.
        with self._lock:
            self._callbacks[kind] = wrapped

    def on_tracking_status(self, callback: Optional[Callable[[bool], None]]) -> None:
        self._register("tracking", self._lib.rovalis_set_tracking_status_callback, c.TrackingStatusCallback,
                       callback, lambda f: lambda _, tracking: f(bool(tracking)))

    def on_authorization(self, callback: Optional[Callable[[int, bool], None]]) -> None:
        """callback(status, precise): 0 not determined, 1 restricted, 2 denied, 3 always, 4 when in use."""
        self._register("authorization", self._lib.rovalis_set_authorization_callback, c.AuthorizationCallback,
                       callback, lambda f: lambda _, status, precise: f(int(status), bool(precise)))

    def on_location(self, callback: Optional[Callable[[Location], None]]) -> None:
        def adapt(f):
            def call(_, location):
                fix = location.contents
                f(Location(*(getattr(fix, name) for name, _ in c.CLocation._fields_)))
            return call

        self._register("location", self._lib.rovalis_set_location_callback, c.LocationCallback, callback, adapt)

    def on_upload(self, callback: Optional[Callable[[UploadResult], None]]) -> None:
        def adapt(f):
            def call(_, result):
                r = result.contents
                f(UploadResult(r.tracked_from, r.tracked_to, bool(r.succeeded),
                               r.error_domain.decode(errors="replace") if r.error_domain else None,
                               int(r.error_code),
                               r.error_message.decode(errors="replace") if r.error_message else None))
            return call

        self._register("upload", self._lib.rovalis_set_upload_callback, c.UploadCallback, callback, adapt)

    # ---- the simulated device

    def run_simulation(self) -> None:
        """Replays the rest of the trace, with the scenario's steps on the way."""
        self._call(self._lib.rovalis_simulation_run)

    def advance(self, seconds: float) -> None:
        """Moves the simulated device's virtual time on."""
        self._call(self._lib.rovalis_simulation_advance, float(seconds))

    def settle(self, max_seconds: float = 7200.0) -> None:
        """Moves virtual time on until every stored event is uploaded; TIMED_OUT when some are left."""
        self._call(self._lib.rovalis_simulation_settle, float(max_seconds), None)

    @property
    def simulation_clock(self) -> tuple[float, float]:
        """(now, end of the trace) in seconds since 1970."""
        now, end = ctypes.c_double(), ctypes.c_double()
        self._call(self._lib.rovalis_simulation_clock, ctypes.byref(now), ctypes.byref(end))
        return now.value, end.value
