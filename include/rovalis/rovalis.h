/*
 * The SDK for C hosts (C11) and for bindings to other languages: opaque handles, status codes
 * and callbacks through plain function pointers. It is implemented over the C++ interface in
 * rovalis/Rovalis.h and behaves the same way; the README describes that behaviour.
 *
 * Status and errors. Every function that can fail returns a rovalis_status; nothing else
 * leaves a call (no C++ exception, no abort on bad arguments). A NULL handle or a NULL
 * required pointer gives ROVALIS_INVALID_ARGUMENT. The text of the last failure is
 * rovalis_last_error(sdk) for a handle and rovalis_config_last_error(config) for a
 * configuration (including a handle that rovalis_sdk_new could not make from it).
 *
 * Ownership. The caller frees what a *_new function made with the matching *_free function.
 * Text handed to a function is copied before it returns. Text handed out is owned by the
 * handle, for as long as each function says; callback arguments live for the callback only.
 *
 * Threads. On the Linux platform a handle may be used from any thread; a call that changes
 * tracking runs its work on the SDK's main run loop (a thread of the SDK) and returns once it
 * is done there. Every callback runs on that main run loop. A callback may call the functions
 * of its handle, except rovalis_clear_data (which would wait for the main run loop it blocks;
 * it returns ROVALIS_WRONG_THREAD there: use rovalis_clear_data_async) and rovalis_sdk_free.
 * On the simulated device (rovalis_config_use_simulated_device) the main run loop runs on the
 * thread that made the handle, inside its calls: make every call of the handle from that thread.
 */
#ifndef ROVALIS_ROVALIS_H
#define ROVALIS_ROVALIS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define ROVALIS_C_API __attribute__((visibility("default")))
#else
#define ROVALIS_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum rovalis_status {
    ROVALIS_OK = 0,
    /* A NULL handle or pointer, or a value the SDK cannot take (the message says which). */
    ROVALIS_INVALID_ARGUMENT = 1,
    /* The SDK is not initialised yet: call rovalis_initialize first. */
    ROVALIS_NOT_INITIALIZED = 2,
    /* A blocking call from the SDK's main run loop (inside a callback). */
    ROVALIS_WRONG_THREAD = 3,
    /* A file could not be read (a trace or a scenario). */
    ROVALIS_IO_ERROR = 4,
    /* The simulated device ran out of the time it was given before the work was done. */
    ROVALIS_TIMED_OUT = 5,
    ROVALIS_OUT_OF_MEMORY = 6,
    /* Anything else; the message tells what happened. */
    ROVALIS_INTERNAL = 7
} rovalis_status;

/* A short name of the status ("ROVALIS_NOT_INITIALIZED"); never NULL, static. */
ROVALIS_C_API const char *rovalis_status_name(rovalis_status status);

/* ---- Configuration: what the host tells the SDK about itself, before making a handle. */

typedef struct rovalis_config rovalis_config;

/* A configuration with the defaults: the host named after the program, the data root
 * $XDG_DATA_HOME/rovalis/<host identifier>, the production service, the default sleep
 * regions, the Linux platform. NULL when memory runs out. Not thread-safe. */
ROVALIS_C_API rovalis_config *rovalis_config_new(void);
/* NULL is allowed and does nothing. */
ROVALIS_C_API void rovalis_config_free(rovalis_config *config);

/* The message of the configuration's last failed call, or "" after a success; owned by the
 * configuration and valid until its next call. "no configuration" for NULL. */
ROVALIS_C_API const char *rovalis_config_last_error(const rovalis_config *config);

/* The host application: its display name, version and build, and its identifier (NULL for
 * none), as sent to the collection service. */
ROVALIS_C_API rovalis_status rovalis_config_set_host(rovalis_config *config, const char *display_name,
                                                     const char *version, const char *build,
                                                     const char *identifier);
/* An Info setting of the host, such as "RV_SDK_BEACON_TRACKING_ENABLED" (true) or
 * "RV_SDK_BEACON_REGIONS" (a JSON text). */
ROVALIS_C_API rovalis_status rovalis_config_set_info_bool(rovalis_config *config, const char *key, bool value);
ROVALIS_C_API rovalis_status rovalis_config_set_info_string(rovalis_config *config, const char *key,
                                                            const char *value);
/* The directory under which the SDK keeps its files. One handle per data root at a time. */
ROVALIS_C_API rovalis_status rovalis_config_set_data_root(rovalis_config *config, const char *path);
/* The base URL of the collection service ("https://collect.example/"); plain http only to a
 * loopback address. */
ROVALIS_C_API rovalis_status rovalis_config_set_service_url(rovalis_config *config, const char *url);
/* The SDK's wifi-only setting, which it keeps across launches: when set here it is applied
 * right after initialisation, as rovalis_set_wifi_only would. Left unset, the stored one holds. */
ROVALIS_C_API rovalis_status rovalis_config_set_wifi_only(rovalis_config *config, bool wifi_only);
/* The regions laid around a stay: the centre region's radius in metres (0 to 1e7, exclusive),
 * how far apart the outer regions spread (0 to 100, exclusive; 1.0 touching, 1.2 overlapping),
 * how many outer regions (0 to 18), and the prefix of their identifiers (NULL keeps
 * "RVLSleepRegion"). */
ROVALIS_C_API rovalis_status rovalis_config_set_sleep_regions(rovalis_config *config, double center_radius,
                                                              double spread_factor, int outer_region_count,
                                                              const char *identifier_prefix);

/* ---- The SDK */

typedef struct rovalis_sdk rovalis_sdk;

/* Makes an SDK instance from the configuration (which stays the caller's and may be freed at
 * once). On failure *sdk is NULL and rovalis_config_last_error(config) says why. */
ROVALIS_C_API rovalis_status rovalis_sdk_new(rovalis_config *config, rovalis_sdk **sdk);
/* Ends the instance as the end of the app's process would: what is buffered is written,
 * nothing is stopped or uploaded, and a new handle on the same data root carries on. Frees
 * the handle and everything it handed out. NULL is allowed. Never from a callback. */
ROVALIS_C_API void rovalis_sdk_free(rovalis_sdk *sdk);

/* The message of the calling thread's last failed call on the handle, or "" after a success;
 * owned by the handle and valid until that thread's next call on it. For NULL: a static text. */
ROVALIS_C_API const char *rovalis_last_error(const rovalis_sdk *sdk);

/* Once, early at launch; a second call changes nothing. Every function below but the callback
 * setters and rovalis_simulation_clock gives ROVALIS_NOT_INITIALIZED before it. */
ROVALIS_C_API rovalis_status rovalis_initialize(rovalis_sdk *sdk);
/* The user's access token: three dot-separated parts (header.payload.signature) of visible
 * ASCII; NULL removes it. */
ROVALIS_C_API rovalis_status rovalis_set_user_token(rovalis_sdk *sdk, const char *token);
ROVALIS_C_API rovalis_status rovalis_start(rovalis_sdk *sdk);
ROVALIS_C_API rovalis_status rovalis_stop(rovalis_sdk *sdk);
ROVALIS_C_API rovalis_status rovalis_is_tracking_active(rovalis_sdk *sdk, bool *active);
ROVALIS_C_API rovalis_status rovalis_wifi_only(rovalis_sdk *sdk, bool *wifi_only);
ROVALIS_C_API rovalis_status rovalis_set_wifi_only(rovalis_sdk *sdk, bool wifi_only);
/* "Always" location permission with full accuracy, and location services on. */
ROVALIS_C_API rovalis_status rovalis_has_required_permissions(rovalis_sdk *sdk, bool *granted);
/* The SDK's version ("0.1.0"), owned by the handle until rovalis_sdk_free. */
ROVALIS_C_API rovalis_status rovalis_version(rovalis_sdk *sdk, const char **version);

/* Deletes every stored event and returns when that is done. ROVALIS_WRONG_THREAD from a
 * callback. */
ROVALIS_C_API rovalis_status rovalis_clear_data(rovalis_sdk *sdk);
/* Deletes every stored event and then calls done(user_data) on the main run loop (done may be
 * NULL). Returns at once. */
ROVALIS_C_API rovalis_status rovalis_clear_data_async(rovalis_sdk *sdk, void (*done)(void *user_data),
                                                      void *user_data);

typedef enum rovalis_lifecycle {
    ROVALIS_WILL_TERMINATE = 0,
    ROVALIS_DID_ENTER_BACKGROUND = 1,
    ROVALIS_WILL_ENTER_FOREGROUND = 2,
    ROVALIS_DID_RECEIVE_MEMORY_WARNING = 3,
    /* Starts an upload. */
    ROVALIS_DID_BECOME_ACTIVE = 4
} rovalis_lifecycle;

/* Tells the SDK of the application's lifecycle (a Linux host posts ROVALIS_WILL_TERMINATE when
 * it is asked to stop, from its own thread, not from a signal handler). */
ROVALIS_C_API rovalis_status rovalis_post_lifecycle(rovalis_sdk *sdk, rovalis_lifecycle event);

/* ---- Callbacks. Each runs on the SDK's main run loop with the user_data given with it. Set
 * one before rovalis_initialize to hear from the start; NULL removes it. Once a setter has
 * returned, the callback it replaced is not running and will not be called again (a setter
 * called from a callback replaces the others at once), so its user_data may be freed. */

typedef struct rovalis_location {
    double latitude;            /* degrees */
    double longitude;           /* degrees */
    double horizontal_accuracy; /* metres */
    double altitude;            /* metres */
    double vertical_accuracy;   /* metres; negative: no altitude */
    double speed;               /* metres per second; negative: unknown */
    double course;              /* degrees from true north; negative: unknown */
    double timestamp;           /* seconds since 1970-01-01 UTC */
} rovalis_location;

typedef struct rovalis_upload_result {
    double from; /* the oldest and newest event of the upload, seconds since 1970 */
    double to;
    bool succeeded;
    /* On failure: the domain ("com.rovalis.error.server" with the HTTP status as the code,
     * "NSURLErrorDomain" with the platform's URL error code), the code and the message.
     * NULL and 0 on success. */
    const char *error_domain;
    long error_code;
    const char *error_message;
} rovalis_upload_result;

typedef void (*rovalis_tracking_status_callback)(void *user_data, bool is_tracking);
/* The platform's raw authorization status (0 not determined, 1 restricted, 2 denied,
 * 3 always, 4 when in use) and whether locations are precise. */
typedef void (*rovalis_authorization_callback)(void *user_data, int32_t status, bool precise);
/* A fix that was just stored as a waypoint. */
typedef void (*rovalis_location_callback)(void *user_data, const rovalis_location *location);
/* After each upload. */
typedef void (*rovalis_upload_callback)(void *user_data, const rovalis_upload_result *result);

ROVALIS_C_API rovalis_status rovalis_set_tracking_status_callback(rovalis_sdk *sdk,
                                                                  rovalis_tracking_status_callback callback,
                                                                  void *user_data);
ROVALIS_C_API rovalis_status rovalis_set_authorization_callback(rovalis_sdk *sdk,
                                                                rovalis_authorization_callback callback,
                                                                void *user_data);
ROVALIS_C_API rovalis_status rovalis_set_location_callback(rovalis_sdk *sdk, rovalis_location_callback callback,
                                                           void *user_data);
ROVALIS_C_API rovalis_status rovalis_set_upload_callback(rovalis_sdk *sdk, rovalis_upload_callback callback,
                                                         void *user_data);

/* ---- The simulated device, in place of the Linux platform (in the simulator library and in
 * the shared C library, not in the production SDK library): a phone that moves along a
 * recorded trace on virtual time, so that a day replays in seconds. Virtual time moves only
 * inside the rovalis_simulation_* calls; the SDK's work and callbacks run inside them (and
 * inside the other calls of the handle) on the calling thread. */

/* Runs the SDK on a simulated device that replays the trace (GPX or CSV), with the steps of
 * the scenario file (NULL for none) at their moments, drawing its noise from the seed. The
 * files are read by rovalis_sdk_new. */
ROVALIS_C_API rovalis_status rovalis_config_use_simulated_device(rovalis_config *config, const char *trace_path,
                                                                 const char *scenario_path, uint64_t seed);

/* Replays the rest of the trace, with the scenario's steps on the way (a relaunch step ends
 * the SDK instance and starts a new one on the same handle, initialised). */
ROVALIS_C_API rovalis_status rovalis_simulation_run(rovalis_sdk *sdk);
/* Moves virtual time on by the given seconds (past the trace's end the device stays put). */
ROVALIS_C_API rovalis_status rovalis_simulation_advance(rovalis_sdk *sdk, double seconds);
/* Moves virtual time on until the SDK holds no stored event (every one uploaded), for at most
 * max_seconds of virtual time; ROVALIS_TIMED_OUT when events are left. events_left (may be
 * NULL) receives how many. */
ROVALIS_C_API rovalis_status rovalis_simulation_settle(rovalis_sdk *sdk, double max_seconds,
                                                       int64_t *events_left);
/* The virtual time now and the trace's end, in seconds since 1970 (either may be NULL). */
ROVALIS_C_API rovalis_status rovalis_simulation_clock(rovalis_sdk *sdk, double *now, double *trace_end);

#ifdef __cplusplus
}
#endif

#endif /* ROVALIS_ROVALIS_H */
