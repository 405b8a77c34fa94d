"""A forecast of one year in steps of 30 days, through the library for other languages.

  forecast.py PORT DATA-DIRECTORY/ MODEL USER

The library is looked for where the system looks for libraries, or where JOBMILL_MASTER says. For new programs
in Python there is the kit, which needs no library.
"""
import ctypes
import os
import sys

DEFAULT = 'jobmill_master.dll' if os.name == 'nt' else 'libjobmill-master.so.0'
WELL_VALUES = 8
OIL_RATE, GAS_RATE, WATER_RATE, BOTTOM_HOLE_PRESSURE = 0, 1, 2, 5

library = ctypes.CDLL(os.environ.get('JOBMILL_MASTER', DEFAULT))
library.jobmill_new.restype = ctypes.c_void_p
run = ctypes.c_void_p(library.jobmill_new())


def text_of(call, *arguments):
    """A text of the library, which says how long it is when it is given no room."""
    room = call(run, *arguments, None, 0) + 1
    text = ctypes.create_string_buffer(room)
    call(run, *arguments, text, room)
    return text.value.decode()


def check(result):
    """The result, or the end of the program with the library's sentence."""
    if result < 0:
        error = text_of(library.jobmill_error_text)
        library.jobmill_shutdown(run, 30)
        library.jobmill_free(run)
        sys.exit(f'error {result}: {error}')
    return result


if len(sys.argv) != 5:
    sys.exit(__doc__)
for name, value in zip(('port', 'path', 'root', 'user'), sys.argv[1:]):
    check(library.jobmill_set(run, name.encode(), value.encode()))
check(library.jobmill_launch(run))

wells = [text_of(library.jobmill_well_name, well) for well in range(check(library.jobmill_read_wells(run)))]
names = '\n'.join(wells).encode()
values = (ctypes.c_double * (WELL_VALUES * len(wells)))()

check(library.jobmill_first_step(run))
print('day,oil,water,gas,lowest bottom-hole pressure')
for day in range(30, 361, 30):
    check(library.jobmill_run_until(run, ctypes.c_double(day)))
    check(library.jobmill_read_data(run, names, values, len(values)))
    oil, water, gas = (sum(values[rate::WELL_VALUES]) for rate in (OIL_RATE, WATER_RATE, GAS_RATE))
    lowest = min(values[BOTTOM_HOLE_PRESSURE::WELL_VALUES])
    print(f'{day},{oil:.6g},{water:.6g},{gas:.6g},{lowest:.6g}')
    ended = ctypes.c_int32()
    check(library.jobmill_has_ended(run, ctypes.byref(ended)))
    if ended.value:
        break
check(library.jobmill_shutdown(run, 30))
library.jobmill_free(run)
