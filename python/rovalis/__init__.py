"""The Rovalis mobility-data SDK for Python, over its C library (librovalis_c.so).

    with rovalis.Sdk(rovalis.Config(display_name="Trips", identifier="com.example.trips")) as sdk:
        sdk.initialize()
        sdk.set_user_token(token)
        sdk.start()

The library is the one named by ROVALIS_LIBRARY, else librovalis_c.so next to this package,
else the one on the system's loader path.
"""

from ._sdk import (
    Config,
    Lifecycle,
    Location,
    RovalisError,
    Sdk,
    SimulatedDevice,
    SleepRegions,
    Status,
    UploadResult,
)

__all__ = [
    "Config",
    "Lifecycle",
    "Location",
    "RovalisError",
    "Sdk",
    "SimulatedDevice",
    "SleepRegions",
    "Status",
    "UploadResult",
]
