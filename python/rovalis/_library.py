"""Loads librovalis_c.so and declares the C functions that the package calls."""

import ctypes
import functools
import os
import pathlib

LIBRARY_NAME = "librovalis_c.so"


class CLocation(ctypes.Structure):
    _fields_ = [
        ("latitude", ctypes.c_double),
        ("longitude", ctypes.c_double),
        ("horizontal_accuracy", ctypes.c_double),
        ("altitude", ctypes.c_double),
        ("vertical_accuracy", ctypes.c_double),
        ("speed", ctypes.c_double),
        ("course", ctypes.c_double),
        ("timestamp", ctypes.c_double),
    ]


class CUploadResult(ctypes.Structure):
    _fields_ = [
        ("tracked_from", ctypes.c_double),
        ("tracked_to", ctypes.c_double),
        ("succeeded", ctypes.c_bool),
        ("error_domain", ctypes.c_char_p),
        ("error_code", ctypes.c_long),
        ("error_message", ctypes.c_char_p),
    ]


TrackingStatusCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_bool)
AuthorizationCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int32, ctypes.c_bool)
LocationCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(CLocation))
UploadCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(CUploadResult))
DoneCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p)

_status = ctypes.c_int
_handle = ctypes.c_void_p
_text = ctypes.c_char_p

# name: (result type, argument types)
_FUNCTIONS = {
    "rovalis_status_name": (_text, [_status]),
    "rovalis_config_new": (_handle, []),
    "rovalis_config_free": (None, [_handle]),
    "rovalis_config_last_error": (_text, [_handle]),
    "rovalis_config_set_host": (_status, [_handle, _text, _text, _text, _text]),
    "rovalis_config_set_info_bool": (_status, [_handle, _text, ctypes.c_bool]),
    "rovalis_config_set_info_string": (_status, [_handle, _text, _text]),
    "rovalis_config_set_data_root": (_status, [_handle, _text]),
    "rovalis_config_set_service_url": (_status, [_handle, _text]),
    "rovalis_config_set_wifi_only": (_status, [_handle, ctypes.c_bool]),
    "rovalis_config_set_sleep_regions": (_status, [_handle, ctypes.c_double, ctypes.c_double, ctypes.c_int, _text]),
    "rovalis_config_use_simulated_device": (_status, [_handle, _text, _text, ctypes.c_uint64]),
    "rovalis_sdk_new": (_status, [_handle, ctypes.POINTER(_handle)]),
    "rovalis_sdk_free": (None, [_handle]),
    "rovalis_last_error": (_text, [_handle]),
    "rovalis_initialize": (_status, [_handle]),
    "rovalis_set_user_token": (_status, [_handle, _text]),
    "rovalis_start": (_status, [_handle]),
    "rovalis_stop": (_status, [_handle]),
    "rovalis_is_tracking_active": (_status, [_handle, ctypes.POINTER(ctypes.c_bool)]),
    "rovalis_wifi_only": (_status, [_handle, ctypes.POINTER(ctypes.c_bool)]),
    "rovalis_set_wifi_only": (_status, [_handle, ctypes.c_bool]),
    "rovalis_has_required_permissions": (_status, [_handle, ctypes.POINTER(ctypes.c_bool)]),
    "rovalis_version": (_status, [_handle, ctypes.POINTER(_text)]),
    "rovalis_clear_data": (_status, [_handle]),
    "rovalis_clear_data_async": (_status, [_handle, DoneCallback, ctypes.c_void_p]),
    "rovalis_post_lifecycle": (_status, [_handle, ctypes.c_int]),
    "rovalis_set_tracking_status_callback": (_status, [_handle, TrackingStatusCallback, ctypes.c_void_p]),
    "rovalis_set_authorization_callback": (_status, [_handle, AuthorizationCallback, ctypes.c_void_p]),
    "rovalis_set_location_callback": (_status, [_handle, LocationCallback, ctypes.c_void_p]),
    "rovalis_set_upload_callback": (_status, [_handle, UploadCallback, ctypes.c_void_p]),
    "rovalis_simulation_run": (_status, [_handle]),
    "rovalis_simulation_advance": (_status, [_handle, ctypes.c_double]),
    "rovalis_simulation_settle": (_status, [_handle, ctypes.c_double, ctypes.POINTER(ctypes.c_int64)]),
    "rovalis_simulation_clock": (_status, [_handle, ctypes.POINTER(ctypes.c_double), ctypes.POINTER(ctypes.c_double)]),
}


def _candidates():
    explicit = os.environ.get("ROVALIS_LIBRARY")
    if explicit:
        return [explicit]
    beside = pathlib.Path(__file__).resolve().parent / LIBRARY_NAME
    return [str(beside), LIBRARY_NAME] if beside.exists() else [LIBRARY_NAME]


@functools.cache
def library():
    """The C library, loaded on first use, with every function declared."""
    failures = []
    for candidate in _candidates():
        try:
            loaded = ctypes.CDLL(candidate)
            break
        except OSError as error:
            failures.append(str(error))
    else:
        raise OSError(
            "could not load the Rovalis C library ("
            + "; ".join(failures)
            + "); set ROVALIS_LIBRARY to the path of librovalis_c.so"
        )
    for name, (result, arguments) in _FUNCTIONS.items():
        function = getattr(loaded, name)
        function.restype = result
        function.argtypes = arguments
    return loaded
