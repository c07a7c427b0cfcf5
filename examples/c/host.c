/* A C host: sets a token, starts tracking, hears the callbacks, stops.
 *
 *     host-c TRACE SERVICE_URL DATA_ROOT
 *
 * The SDK runs on the simulated device replaying TRACE. A host on a Linux machine leaves out
 * rovalis_config_use_simulated_device and the rovalis_simulation_* calls: the SDK then runs on
 * its own threads, and the host stops it when it is asked to quit. */
#include <stdio.h>

#include "rovalis/rovalis.h"

static const char *token =
    "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
    "eyJzdWIiOiIwZjhmYWQ1Yi1kOWNiLTQ2OWYtYTE2NS03MDg2NzcyODk1MGUiLCJuYW1lIjoiU2ltdWxhdGVkIn0.c2ltdWxhdGVk";

struct heard {
    int locations;
    int uploads;
    bool last_upload_succeeded;
};

static void on_tracking(void *user_data, bool is_tracking) {
    (void)user_data;
    printf("tracking %s\n", is_tracking ? "on" : "off");
}

static void on_location(void *user_data, const rovalis_location *location) {
    struct heard *heard = user_data;
    if (heard->locations++ % 200 == 0) printf("fix %.5f, %.5f\n", location->latitude, location->longitude);
}

static void on_upload(void *user_data, const rovalis_upload_result *result) {
    struct heard *heard = user_data;
    heard->last_upload_succeeded = result->succeeded;
    if (result->succeeded) {
        heard->uploads++;
    } else {
        printf("upload failed: %s %ld %s\n", result->error_domain, result->error_code, result->error_message);
    }
}

static bool ok(rovalis_sdk *sdk, rovalis_status status, const char *call) {
    if (status != ROVALIS_OK) fprintf(stderr, "%s: %s: %s\n", call, rovalis_status_name(status), rovalis_last_error(sdk));
    return status == ROVALIS_OK;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s TRACE SERVICE_URL DATA_ROOT\n", argv[0]);
        return 2;
    }
    rovalis_config *config = rovalis_config_new();
    rovalis_sdk *sdk = NULL;
    if (config == NULL || rovalis_config_set_host(config, "C example", "1.0", "1", "com.example.c-host") != ROVALIS_OK ||
        rovalis_config_set_data_root(config, argv[3]) != ROVALIS_OK ||
        rovalis_config_set_service_url(config, argv[2]) != ROVALIS_OK ||
        rovalis_config_use_simulated_device(config, argv[1], NULL, 1) != ROVALIS_OK ||
        rovalis_sdk_new(config, &sdk) != ROVALIS_OK) {
        fprintf(stderr, "configuration: %s\n", rovalis_config_last_error(config));
        rovalis_config_free(config);
        return 1;
    }
    rovalis_config_free(config);

    struct heard heard = {0, 0, false};
    bool done = ok(sdk, rovalis_set_tracking_status_callback(sdk, on_tracking, NULL), "callback") &&
                ok(sdk, rovalis_set_location_callback(sdk, on_location, &heard), "callback") &&
                ok(sdk, rovalis_set_upload_callback(sdk, on_upload, &heard), "callback") &&
                ok(sdk, rovalis_initialize(sdk), "initialize") && ok(sdk, rovalis_set_user_token(sdk, token), "token") &&
                ok(sdk, rovalis_start(sdk), "start") && ok(sdk, rovalis_simulation_run(sdk), "run") &&
                ok(sdk, rovalis_stop(sdk), "stop") && ok(sdk, rovalis_simulation_settle(sdk, 3600, NULL), "settle");
    rovalis_sdk_free(sdk);

    /* Before the token is set an upload fails; the last one must have gone out. */
    printf("%d fixes, %d uploads\n", heard.locations, heard.uploads);
    return done && heard.locations > 0 && heard.last_upload_succeeded ? 0 : 1;
}
