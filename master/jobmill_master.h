/* The master's side of a jobmill for programs that are not written in C++: .NET, MATLAB, VBA,
 * Fortran, Python. A handle is one run, from its launch to its shutdown.
 *
 *   Linux    libjobmill-master.so.0
 *   Windows  jobmill_master.dll, 64 bits, the only calling convention there
 *
 * Texts are UTF-8, end with a zero byte, and are copied: none is kept after a call or given away. A
 * list of names is one text, a name a line. A null pointer is an empty text. There are no types but
 * int32_t, double, char pointers and the handle.
 *
 * A call returns 0 or more when it succeeded, else one of the errors below, of which
 * jobmill_error_text() has the sentence. No exception leaves the library.
 *
 * A text that is asked for goes to the caller's `text`, which has `room` bytes; it is cut there
 * when it is longer. The call returns the length of the whole text without its zero byte, so that a
 * caller may come again with more room. `text` may be null when `room` is 0.
 *
 * Threads: one thread at a time uses a handle; different handles may be used at once. Only
 * jobmill_cancel() may be called by any thread at any time. Calls block until the daemon has
 * answered; a step may take hours.
 *
 * A request that the daemon or the simulator refuses ends the run (JOBMILL_REQUEST_FAILED): there
 * is no error reply in the protocol. Check names against the model before they are sent.
 *
 * What is here stays: functions are added, none is changed or taken away below the same .so.0. */
#ifndef JOBMILL_MASTER_H
#define JOBMILL_MASTER_H

#include <stdint.h>

#if defined(JOBMILL_MASTER_BUILDING) && defined(_WIN32)
#define JOBMILL_API __declspec(dllexport)
#elif defined(_WIN32)
#define JOBMILL_API __declspec(dllimport)
#else
#define JOBMILL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct jobmill_run jobmill_run;

/* Errors. After JOBMILL_USAGE the call may be made again as it has to be; after JOBMILL_CANCELLED
 * the run can be shut down; after the others the handle can only be freed. */
enum {
  JOBMILL_INTERNAL = -1,       /* something that nobody foresaw; no memory */
  JOBMILL_USAGE = -2,          /* an argument, or a call that has no sense now; nothing was sent */
  JOBMILL_NOT_LAUNCHED = -3,   /* the daemon was not reached, or it refused the run */
  JOBMILL_REQUEST_FAILED = -4, /* the daemon ended the connection on a request */
  JOBMILL_LINK_LOST = -5,      /* the connection broke */
  JOBMILL_BAD_ANSWER = -6,     /* the daemon's answer does not follow the protocol */
  JOBMILL_TIMED_OUT = -7,      /* a time limit passed */
  JOBMILL_CANCELLED = -8       /* jobmill_cancel() */
};

/* The version of this library as MAJOR * 10000 + MINOR * 100 + PATCH. */
JOBMILL_API int32_t jobmill_version(void);

/* A handle, or null without memory. jobmill_free() closes its connection and frees it; the daemon
 * then ends the controller of the run, and whether the simulator ends with it is up to the
 * simulator. */
JOBMILL_API jobmill_run* jobmill_new(void);
JOBMILL_API void jobmill_free(jobmill_run* run);

/* The sentence of the last call on this handle that failed. */
JOBMILL_API int32_t jobmill_error_text(jobmill_run* run, char* text, int32_t room);

/* What jobmill_launch() is to launch, before it: "host" (localhost), "port", "path" (the data
 * directory as the daemon's host sees it, with a slash at its end), "root" (the model), "user" (the
 * Windows user), and where the defaults will not do "processes" (1), "api" (2017.2), "debug" (0),
 * "cluster" (0), "connect-wait" (10 seconds), "launch-wait" (0 seconds: as long as the job queues).
 */
JOBMILL_API int32_t jobmill_set(jobmill_run* run, const char* name, const char* value);

/* Reaches the daemon, has the simulator launched, and connects to it. */
JOBMILL_API int32_t jobmill_launch(jobmill_run* run);

/* The host that the simulator runs on. */
JOBMILL_API int32_t jobmill_host(jobmill_run* run, char* text, int32_t room);

/* Ends the call that waits, or the next one that would, with JOBMILL_CANCELLED. */
JOBMILL_API void jobmill_cancel(jobmill_run* run);

/* From now on `tick` is called with `user` about every `milliseconds` while a call waits, on the
 * caller's thread. Of this library it may call jobmill_cancel() only. Null for none. */
JOBMILL_API int32_t jobmill_on_wait(jobmill_run* run, int32_t milliseconds,
                                    void (*tick)(void* user), void* user);

/* Shuts the simulator down, also after JOBMILL_CANCELLED. Waits for the daemon's answer for up to
 * `seconds`; after JOBMILL_TIMED_OUT the daemon still has the order. */
JOBMILL_API int32_t jobmill_shutdown(jobmill_run* run, int32_t seconds);

/* Flags are 0 or 1. Times are days since the start date. */
JOBMILL_API int32_t jobmill_is_metric(jobmill_run* run, int32_t* flag);
JOBMILL_API int32_t jobmill_is_compositional(jobmill_run* run, int32_t* flag);
JOBMILL_API int32_t jobmill_has_ended(jobmill_run* run, int32_t* flag);
JOBMILL_API int32_t jobmill_simulator_version(jobmill_run* run, double* version);
JOBMILL_API int32_t jobmill_time(jobmill_run* run, double* days);
JOBMILL_API int32_t jobmill_date(jobmill_run* run, int32_t* day, int32_t* month, int32_t* year);
JOBMILL_API int32_t jobmill_start_date(jobmill_run* run, int32_t* day, int32_t* month,
                                       int32_t* year);

/* To the first time step, once; then until a time. Returns when the simulator is there or its run
 * has ended, which jobmill_has_ended() tells. */
JOBMILL_API int32_t jobmill_first_step(jobmill_run* run);
JOBMILL_API int32_t jobmill_run_until(jobmill_run* run, double days);

/* Reads the wells from the daemon and returns how many there are. The other three then give those
 * that have been read, from 0 on. */
JOBMILL_API int32_t jobmill_read_wells(jobmill_run* run);
JOBMILL_API int32_t jobmill_well_name(jobmill_run* run, int32_t well, char* text, int32_t room);
JOBMILL_API int32_t jobmill_well_type(jobmill_run* run, int32_t well, char* text, int32_t room);
JOBMILL_API int32_t jobmill_well_status(jobmill_run* run, int32_t well, char* text, int32_t room);

/* The places of a well's values in jobmill_read_data(), in the units of the run. */
enum {
  JOBMILL_OIL_RATE = 0,
  JOBMILL_GAS_RATE = 1,
  JOBMILL_WATER_RATE = 2,
  JOBMILL_WATER_INJECTION_RATE = 3,
  JOBMILL_GAS_INJECTION_RATE = 4,
  JOBMILL_BOTTOM_HOLE_PRESSURE = 5,
  JOBMILL_TUBING_HEAD_PRESSURE = 6,
  JOBMILL_UPTIME_FRACTION = 7,
  JOBMILL_WELL_VALUES = 8
};

/* The operating points of `wells`, JOBMILL_WELL_VALUES in a row for each well in the order
 * of the names. `room` is how many values there is room for. Returns how many there are. */
JOBMILL_API int32_t jobmill_read_data(jobmill_run* run, const char* wells, double* values,
                                      int32_t room);

/* The properties of one well by the simulator's names, a value each. Returns how many there are. */
JOBMILL_API int32_t jobmill_read_variables(jobmill_run* run, const char* well,
                                           const char* properties, double* values, int32_t room);

/* The same for all of `wells`. `values` has as many numbers as `properties` has lines. */
JOBMILL_API int32_t jobmill_set_status(jobmill_run* run, const char* wells, const char* status);
JOBMILL_API int32_t jobmill_set_uptime(jobmill_run* run, const char* wells, double fraction);
JOBMILL_API int32_t jobmill_set_constraints(jobmill_run* run, const char* wells,
                                            const char* properties, const double* values,
                                            int32_t count);

/* Builds inflow tables of `wells` and returns how many points each has. It opens the wells and
 * leaves them cut back: set statuses and constraints again when the run goes on. `components` is
 * for how many components mole fractions are wanted, 0 for none. */
JOBMILL_API int32_t jobmill_read_inflow(jobmill_run* run, const char* wells, int32_t bottom_hole,
                                        double skewness, int32_t components);

/* The columns of a table; from JOBMILL_INFLOW_COLUMNS on the mole fractions of component 0, 1, ...
 */
enum {
  JOBMILL_INFLOW_PRESSURE = 0,
  JOBMILL_INFLOW_OIL_RATE = 1,
  JOBMILL_INFLOW_WATER_RATE = 2,
  JOBMILL_INFLOW_GAS_RATE = 3,
  JOBMILL_INFLOW_TEMPERATURE = 4,
  JOBMILL_INFLOW_GAS_DENSITY = 5,
  JOBMILL_INFLOW_OIL_DENSITY = 6,
  JOBMILL_INFLOW_WATER_DENSITY = 7,
  JOBMILL_INFLOW_COLUMNS = 8
};

/* A column of the table that was built for well 0, 1, ... of jobmill_read_inflow(), a value a
 * point. Returns how many there are. */
JOBMILL_API int32_t jobmill_inflow(jobmill_run* run, int32_t well, int32_t column, double* values,
                                   int32_t room);

/* Reads the equation of state and returns how many components it has. */
JOBMILL_API int32_t jobmill_read_fluid(jobmill_run* run);
JOBMILL_API int32_t jobmill_component_name(jobmill_run* run, int32_t component, char* text,
                                           int32_t room);

enum {
  JOBMILL_MOLECULAR_WEIGHT = 0,
  JOBMILL_CRITICAL_TEMPERATURE = 1,
  JOBMILL_CRITICAL_PRESSURE = 2,
  JOBMILL_CRITICAL_VOLUME = 3,
  JOBMILL_ACENTRIC_FACTOR = 4,
  JOBMILL_BOILING_POINT = 5,
  JOBMILL_VOLUME_SHIFT = 6,
  JOBMILL_OMEGA_A = 7,
  JOBMILL_OMEGA_B = 8,
  JOBMILL_PARACHOR = 9,
  JOBMILL_BINARY_INTERACTION = 10
};

/* One property of what has been read, a value a component, or 0 values when the simulator left the
 * property out; the binary interaction as flat as it comes. Returns how many there are. */
JOBMILL_API int32_t jobmill_fluid(jobmill_run* run, int32_t property, double* values, int32_t room);

/* Attaches an external gas source to a well. Returns 0 when the simulator has refused it, which
 * changes nothing, and what it answered when it has not. */
JOBMILL_API int32_t jobmill_set_source(jobmill_run* run, const char* well, const char* source);

/* Gives a source its mole fractions, the first component first. */
JOBMILL_API int32_t jobmill_set_composition(jobmill_run* run, const char* source,
                                            const double* fractions, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
