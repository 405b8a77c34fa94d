"""The rules for simulators."""

from __future__ import annotations

from .report import rules

_PAGE = "external-controller-protocol.md"
RULES = [
    *rules(
        _PAGE,
        ("S01", "Connecting", "The simulator accepts a connection on its port."),
        (
            "S02",
            "Framing",
            "The chunks of a message add up to its total length, and none after the first is empty.",
        ),
        ("S03", "Framing", "Messages are cut at multiples of 65,536 bytes."),
        (
            "S04",
            "Message format",
            "A header has a name, a count, one of the four types, and the data that it announces.",
        ),
        (
            "S05",
            "Message format",
            "A message ends with the MESS header END, and nothing follows it.",
        ),
        ("S06", "Set-up", "SETUP is answered by STARTED and a list ERRORS, which is empty."),
        (
            "S07",
            "Set-up",
            "A simulator that accepts sends a step answer next, without being asked.",
        ),
        ("S08", "Positions", "The position of the first step answer is MODEL_DEFINITION."),
        (
            "S09",
            "Steps",
            "A step answer is FINISHED, or STEP with POSITION, TIME and six integers DATE.",
        ),
        ("S10", "Steps", "POSITION is MODEL_DEFINITION, BEGIN_NEWTON or END_SIMULATE."),
        ("S11", "Steps", "DATE begins with year, month and day of a date, that of TIME."),
        ("S12", "Positions", "The first CONTINUE leads to BEGIN_NEWTON."),
        (
            "S13",
            "Steps",
            "CONTINUE_UNTIL runs to exactly its time, or to the end of the simulation.",
        ),
        ("S14", "Steps", "A time that has passed changes nothing: simulated time never goes back."),
        ("S15", "Steps", "CONTINUE runs on, to the next stopping point or the end."),
        (
            "S16",
            "Steps",
            "At the end, CONTINUE is answered by FINISHED, or by STEP with END_SIMULATE.",
        ),
        ("S17", "Steps", "SHUTDOWN is answered by a step answer."),
        ("S18", "External-controller protocol", "Nothing is sent without being asked for."),
        ("S19", "Ready", "The answer to a query is followed by the ready message."),
        ("S20", "Ready", "The answer to a setter is the ready message."),
        (
            "S21",
            "Queries",
            "The answer to a query begins with REPLY, whatever names were asked for.",
        ),
        (
            "S22",
            "Properties of wells",
            "The headers are QITEMS, then WELLNAME and VALUES for each well.",
        ),
        ("S23", "Properties of wells", "A row has one value for each property in QITEMS."),
        ("S24", "Properties of wells", "VALUES are DOUB for QWELLS and CSTR for QWELLS_STR."),
        (
            "S25",
            "Properties of wells",
            "Rows are for wells and properties that were asked for, a well asked for twice has two.",
        ),
        (
            "S26",
            "Properties of the run",
            "The headers are QITEM and VALUES for each property that was asked for.",
        ),
        ("S27", "Properties of the run", "VALUES are INTE for QRESVR and CSTR for QRESVR_STR."),
        ("S28", "Properties of the run", "START_DATE has six integers that begin with a date."),
        ("S29", "Constraints of wells", "ITEMS, VALUES and SETTERS of a well have one length."),
        ("S30", "Inflow-performance curves", "Each curve has as many values as NPOINTS says."),
        (
            "S31",
            "Field-management fluid model",
            "The answer is empty or one list, which in version 2017.2 is NCOMPS.",
        ),
        (
            "S32",
            "Fluid models of the reservoir",
            "Each model has FLUIDMODELDNAME, EOSNAME, NCOMPS, BIC and its properties.",
        ),
        (
            "S33",
            "Fluid models of the reservoir",
            "A property has one value for each component of its model.",
        ),
        ("S34", "Status", "A status that was set is answered by the next query."),
        ("S35", "Uptime", "An uptime that was set is answered by the next query."),
        (
            "S36",
            "Constraints",
            "A rate limit acts on the very next query, without a step in between.",
        ),
        ("S37", "Constraints", "A limit that is set again replaces the one before."),
        ("S38", "Constraints", "A limit is set for all wells that a message names."),
        (
            "S39",
            "Attaching an external source",
            "The answer is REPLY and one integer STRET, then the ready message.",
        ),
        ("S40", "Composition of an external source", "SETWSTRE is answered by the ready message."),
        ("S41", "Framing", "A request in chunks of one byte is taken."),
        ("S42", "Framing", "A request is taken however the network cuts it."),
        ("S43", "Framing", "A request of more than 65,536 bytes, in several chunks, is taken."),
        ("S44", "Message format", "Lists may be empty: n is any count."),
        (
            "S53",
            "Properties of wells",
            "QITEMS has the properties in the order in which they were asked for.",
        ),
        (
            "S45",
            "What an answer must hold",
            '"*" as the list of wells means all, whatever their status; each has TYPE and STATUS.',
        ),
        (
            "S46",
            "What an answer must hold",
            "Every well has the eight properties of operating points.",
        ),
        ("S47", "Inflow tables", "Every well has the properties of inflow tables."),
        (
            "S48",
            "What an answer must hold",
            "UNIT_SYSTEM is one text, for metric units exactly TOLMEN_METRIC.",
        ),
        ("S49", "What an answer must hold", "VK_VERSION begins with a number."),
        (
            "S50",
            "What an answer must hold",
            "FM_FLUID_MODEL and RES_FLUID_MODEL are known; a compositional run has a fluid model.",
        ),
        (
            "S51",
            "What an answer must hold",
            "Wells and properties that are not known are left out of answers.",
        ),
        ("S52", "Steps", "SHUTDOWN straight after the set-up is answered, too."),
        (
            "S54",
            "Positions",
            "Queries and setters are answered before the first CONTINUE.",
        ),
        ("S55", "Positions", "Queries and setters are answered after the end."),
        (
            "S56",
            "Steps",
            "CONTINUE_UNTIL as the first step runs to its time, without a CONTINUE before it.",
        ),
        (
            "S57",
            "Status",
            "A well that is SHUT has no rates, at once; set OPEN, it has them again.",
        ),
        ("S58", "Uptime", "Rates are averages over the day: with an uptime of 0 they are 0."),
        ("S59", "Status", "Every well that a message names gets its own status."),
        ("S60", "Uptime", "Every well that a message names gets its own uptime."),
        ("S61", "Setters", 'The well "*" of a setter means all wells.'),
        ("S62", "Queries", 'The well "*" of QWELLS means all wells.'),
        (
            "S63",
            "Ready",
            "What a setter names that is unknown or has no sense changes nothing; READY answers it.",
        ),
        ("S64", "Constraints", "Each of several constraints of a well in one message is set."),
        (
            "S65",
            "Constraints",
            "A limit stays until it is replaced, whatever else of the well is set.",
        ),
        (
            "S66",
            "Inflow tables",
            "The limits that the jobmill sets are obeyed: liquid and gas of producers, water or gas "
            "of injectors.",
        ),
        (
            "S67",
            "Limits",
            "A limit out of reach is taken, and so takes the one before off.",
        ),
        (
            "S68",
            "Items",
            "Numbers are finite, rates not negative, an uptime between 0 and 1.",
        ),
        (
            "S69",
            "Items",
            "Mole fractions are counted from 1, one for each component, and add up to 1.",
        ),
        (
            "S70",
            "Items",
            "TYPE is exactly PRODUCER or WATER_INJECTOR for such wells.",
        ),
        (
            "S71",
            "What an answer must hold",
            "FM_FLUID_MODEL of a compositional run is exactly COMPOSITIONAL.",
        ),
        ("S73", "Steps", "The simulator ends when it has answered SHUTDOWN."),
        ("S74", "Steps", "The simulator ends when its controller has gone."),
        ("S75", "What an answer must hold", "START_DATE stays the same in the course of the run."),
        (
            "S76",
            "Positions",
            "Queries and setters move neither time nor, without a setter, the next answer.",
        ),
        (
            "S77",
            "Steps",
            "The step that reaches the end is answered by STEP with END_SIMULATE, its time and date.",
        ),
    ),
]
