"""A Python host: sets a token, starts tracking, hears the callbacks, stops.

    python3 host.py TRACE SERVICE_URL DATA_ROOT

The SDK runs on the simulated device replaying TRACE. A host on a Linux machine leaves out
simulated_device and the simulation calls: the SDK then runs on its own threads, and the host
stops it when it is asked to quit.
"""

import sys

import rovalis

TOKEN = (
    "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
    "eyJzdWIiOiIwZjhmYWQ1Yi1kOWNiLTQ2OWYtYTE2NS03MDg2NzcyODk1MGUiLCJuYW1lIjoiU2ltdWxhdGVkIn0.c2ltdWxhdGVk"
)


def main(trace: str, service_url: str, data_root: str) -> int:
    config = rovalis.Config(display_name="Python example", version="1.0", build="1",
                            identifier="com.example.python-host", data_root=data_root, service_url=service_url,
                            simulated_device=rovalis.SimulatedDevice(trace))
    fixes, uploads = [], []
    try:
        with rovalis.Sdk(config) as sdk:
            sdk.on_tracking_status(lambda tracking: print("tracking", "on" if tracking else "off"))
            sdk.on_location(fixes.append)
            sdk.on_upload(uploads.append)
            sdk.initialize()
            sdk.set_user_token(TOKEN)
            sdk.start()
            sdk.run_simulation()
            sdk.stop()
            sdk.settle(max_seconds=3600)
    except rovalis.RovalisError as error:
        print(error, file=sys.stderr)
        return 1

    for upload in uploads:
        if not upload.succeeded:
            print("upload failed:", upload.error_domain, upload.error_code, upload.error_message)
    print(f"{len(fixes)} fixes, {sum(upload.succeeded for upload in uploads)} uploads")
    # Before the token is set an upload fails; the last one must have gone out.
    return 0 if fixes and uploads and uploads[-1].succeeded else 1


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(f"usage: {sys.argv[0]} TRACE SERVICE_URL DATA_ROOT")
    sys.exit(main(*sys.argv[1:]))
