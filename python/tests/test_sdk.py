"""The binding against the real library: an hour replayed on the simulated device with its
uploads checked at the collection service, and the C library's refusals as exceptions."""

import json
import sqlite3

import pytest

import rovalis

TOKEN = (
    "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
    "eyJzdWIiOiIwZjhmYWQ1Yi1kOWNiLTQ2OWYtYTE2NS03MDg2NzcyODk1MGUiLCJuYW1lIjoiU2ltdWxhdGVkIn0."
    "c2ltdWxhdGVk"
)
NOT_INITIALIZED = (
    "The SDK must be initialized by calling the initialize function inside the didFinishLaunchingWithOptions "
    "App delegate."
)


def simulated(tmp_path, trace, service_url="http://127.0.0.1:9/", **overrides):
    return rovalis.Config(display_name="pytest host", version="1.0", build="3", identifier="com.example.pytest",
                          data_root=tmp_path / "root", service_url=service_url,
                          simulated_device=rovalis.SimulatedDevice(trace, seed=5), **overrides)


def recorded_events(data_root):
    """How many events the SDK ever stored: its row ids are never reused."""
    with sqlite3.connect(data_root / "Store" / "RovalisSDK.sqlite") as store:
        return store.execute("SELECT max(coalesce((SELECT max(id) FROM EventEntity), 0),"
                             " (SELECT highest_event_id FROM StoreMetadata))").fetchone()[0]


def test_an_hour_on_the_simulated_device_reaches_the_service_once(tmp_path, trace, collector):
    tracking, locations, uploads = [], [], []
    with rovalis.Sdk(simulated(tmp_path, trace, collector.url, wifi_only=True)) as sdk:
        sdk.on_tracking_status(tracking.append)
        sdk.on_location(locations.append)
        sdk.on_upload(uploads.append)
        sdk.initialize()
        assert sdk.wifi_only and sdk.has_required_permissions and not sdk.is_tracking_active
        assert sdk.version.count(".") == 2
        # Initialised with tracking off, the SDK says so and tries an upload, without a token.
        before_start, uploads_without_token = len(tracking), len(uploads)
        sdk.set_user_token(TOKEN)
        sdk.start()
        sdk.run_simulation()
        now, end = sdk.simulation_clock
        assert now >= end
        sdk.stop()
        sdk.settle()

    assert tracking[before_start:] == [True, False]
    with_token = uploads[uploads_without_token:]
    assert with_token and all(upload.succeeded and upload.tracked_from <= upload.tracked_to for upload in with_token)
    assert locations and all(end - 3600 <= fix.timestamp <= end for fix in locations)

    # Every event the SDK recorded was stored once: as many as it ever recorded, in batches whose
    # sequential ids follow each other.
    events, stats = collector.get("api/events"), collector.get("api/stats")
    assert len(events) == stats["events"] == recorded_events(tmp_path / "root")
    assert [stats[key] for key in ("devices", "sequential_id_gaps", "sequential_id_step_backs", "conflicts")] == [
        1, 0, 0, 0]
    # Every fix the host heard of arrived as a waypoint; the bursts around a sleep add more.
    waypoints = {json.loads(e["payload"])["latitude"] for e in events if e["type"] == "Waypoint"}
    assert all(fix.latitude in waypoints for fix in locations)
    assert len([e for e in events if e["type"] == "ToggleTracking"]) == 2
    assert collector.get("api/stats")["devices"] == 1


def test_misuse_raises_the_c_librarys_status_and_message(tmp_path, trace):
    with rovalis.Sdk(simulated(tmp_path, trace)) as sdk:
        with pytest.raises(rovalis.RovalisError) as refused:
            sdk.start()
        assert refused.value.status == rovalis.Status.NOT_INITIALIZED
        assert refused.value.message == NOT_INITIALIZED

        sdk.initialize()
        with pytest.raises(rovalis.RovalisError, match="three dot-separated parts") as refused:
            sdk.set_user_token("not-a-token")
        assert refused.value.status == rovalis.Status.INVALID_ARGUMENT

        # Waiting inside a callback would block the loop that finishes the wait.
        inside = []

        def clear_inside(_tracking):
            with pytest.raises(rovalis.RovalisError) as waited:
                sdk.clear_data()
            inside.append(waited.value.status)

        sdk.on_tracking_status(clear_inside)
        sdk.start()
        assert inside == [rovalis.Status.WRONG_THREAD]

    with pytest.raises(rovalis.RovalisError, match="no SDK handle") as closed:
        sdk.stop()
    assert closed.value.status == rovalis.Status.INVALID_ARGUMENT

    with pytest.raises(rovalis.RovalisError, match="0 to 18 outer regions"):
        rovalis.Sdk(simulated(tmp_path, trace, sleep_regions=rovalis.SleepRegions(outer_region_count=40)))
    with pytest.raises(rovalis.RovalisError, match="nowhere.gpx") as unreadable:
        rovalis.Sdk(simulated(tmp_path, tmp_path / "nowhere.gpx"))
    assert unreadable.value.status == rovalis.Status.IO_ERROR
