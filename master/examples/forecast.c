/* A forecast of one year in steps of 30 days: what the field makes, and the pressures of its wells.
 *
 *   Linux    cc forecast.c -ljobmill-master -o forecast
 *   Windows  cl forecast.c jobmill_master.lib         (README: how to make jobmill_master.lib)
 *            gcc forecast.c jobmill_master.dll -o forecast.exe
 *
 *   forecast PORT DATA-DIRECTORY/ MODEL USER
 */
#include <stdio.h>
#include <stdlib.h>

#include "jobmill_master.h"

enum { kMostWells = 1000, kNames = 32768 };

static jobmill_run* run;

/* The result, or the end of the program with the library's sentence. */
static int32_t check(const char* what, int32_t result) {
  if (result < 0) {
    char text[1024] = "";
    jobmill_error_text(run, text, sizeof(text));
    fprintf(stderr, "%s: error %d: %s\n", what, (int)result, text);
    jobmill_shutdown(run, 30);
    jobmill_free(run);
    exit(1);
  }
  return result;
}

int main(int argc, char** argv) {
  static char names[kNames];
  static double values[kMostWells * JOBMILL_WELL_VALUES];
  if (argc != 5) {
    fprintf(stderr, "forecast PORT DATA-DIRECTORY/ MODEL USER\n");
    return 2;
  }
  run = jobmill_new();
  if (run == NULL) return 1;
  check("port", jobmill_set(run, "port", argv[1]));
  check("path", jobmill_set(run, "path", argv[2]));
  check("root", jobmill_set(run, "root", argv[3]));
  check("user", jobmill_set(run, "user", argv[4]));
  check("launch", jobmill_launch(run));

  int32_t wells = check("wells", jobmill_read_wells(run));
  int32_t length = 0;
  for (int32_t i = 0; i < wells; ++i) {
    length += check("name", jobmill_well_name(run, i, names + length, kNames - length));
    if (i == kMostWells || length > kNames - 2) {
      fprintf(stderr, "more wells than there is room for\n");
      jobmill_shutdown(run, 30);
      jobmill_free(run);
      return 1;
    }
    names[length++] = '\n';
  }
  names[length] = '\0';

  check("first step", jobmill_first_step(run));
  printf("day,oil,water,gas,lowest bottom-hole pressure\n");
  for (int day = 30; day <= 360; day += 30) {
    int32_t ended = 0;
    check("until", jobmill_run_until(run, day));
    check("data", jobmill_read_data(run, names, values, kMostWells * JOBMILL_WELL_VALUES));
    double oil = 0, water = 0, gas = 0, lowest = 0;
    for (int32_t i = 0; i < wells; ++i) {
      const double* well = values + i * JOBMILL_WELL_VALUES;
      oil += well[JOBMILL_OIL_RATE];
      water += well[JOBMILL_WATER_RATE];
      gas += well[JOBMILL_GAS_RATE];
      double pressure = well[JOBMILL_BOTTOM_HOLE_PRESSURE];
      if (i == 0 || pressure < lowest) lowest = pressure;
    }
    printf("%d,%.6g,%.6g,%.6g,%.6g\n", day, oil, water, gas, lowest);
    check("ended", jobmill_has_ended(run, &ended));
    if (ended) break;
  }
  check("shutdown", jobmill_shutdown(run, 30));
  jobmill_free(run);
  return 0;
}
