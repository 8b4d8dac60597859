"""When each fault of a plan was in force, from the steps that were carried out."""

from .timeline import FaultRow, Span

# What a step sets stays until another step of its track sets it anew. With none of these arguments it is undone.
LASTING = {"net": ("rules",), "cut": ("pairs",), "delay": ("deliver_ms", "state_ms"), "clock": ("step_s",),
           "state-file": ("how",), "master": ("nodes",)}
ALSO_ENDED_BY = {"state-file": ("master",)}
TEXT_MAX = 160


def lasts(step):
    """Whether the step leaves something in force when it has been carried out."""
    if step["do"] == "master":
        return len(step.get("nodes", ())) != 1  # one MASTER is no fault
    return any(step.get(key) for key in LASTING.get(step["do"], ()))


def ends(step, later):
    return later["do"] == step["do"] or later["do"] in ALSO_ENDED_BY.get(step["do"], ())


def describe(step):
    words = [step["do"]] + [f"{key} {value}" for key, value in step.items() if key not in ("do", "at")]
    text = ", ".join(words)
    return text if len(text) <= TEXT_MAX else text[:TEXT_MAX - 1] + "…"


def track_spans(events, faults_end):
    """`events`: those of one track ("step" and "step-end"), in their order. Returns the spans of its steps."""
    begun = [event for event in events if event["what"] == "step"]
    found = []
    for index, event in enumerate(begun):
        step = event["step"]
        ended = next((one["t"] for one in events if one["what"] == "step-end" and one["number"] == event["number"]),
                     faults_end)
        if lasts(step):
            until = next((later["t"] for later in begun[index + 1:] if ends(step, later["step"])), faults_end)
            ended = max(ended, until)
        elif step["do"] in LASTING and step["do"] != "master":
            continue  # it only undoes
        found.append(Span("fault", event["t"], max(event["t"], ended), describe(step)))
    return found


def fault_rows(names, events, faults_end):
    """Returns a FaultRow for each name, also for those of which no step was carried out. Times as in the events."""
    rows = []
    for track, name in enumerate(names):
        own = [event for event in events if event["what"] in ("step", "step-end") and event["track"] == track]
        rows.append(FaultRow(name, track_spans(own, faults_end)))
    return rows
