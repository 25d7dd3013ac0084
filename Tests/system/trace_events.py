#!/usr/bin/env python3
"""Checks a trace against the published trace-event format, and shows its tracks.

usage: trace_events.py FILE [NAME...]    with names: checks instead that these events follow each other in time

The format: https://docs.google.com/document/d/1CvAClvFfyA5R-PhYUmn5OOQtYMH4h6I0nSsKchNAySU. "/NAME" is the end of a slice.
"""

import collections
import json
import sys

# The fields of an event by its phase, beside "ph", with their types.
TRACK = {"pid": int, "tid": int}
FIELDS = {
    "M": {"name": str, "args": dict} | TRACK,
    "B": {"name": str, "ts": int} | TRACK,
    "E": {"ts": int} | TRACK,
    "i": {"name": str, "ts": int, "s": str} | TRACK,
    "C": {"name": str, "ts": int, "pid": int, "args": dict},
}
METADATA = {"process_name": "name", "thread_name": "name", "process_sort_index": "sort_index",
            "thread_sort_index": "sort_index"}


def unique(pairs):
    """An object of the file."""
    names = [name for name, _ in pairs]
    assert len(names) == len(set(names)), f"a name twice in {names}"
    return dict(pairs)


def check_event(event):
    fields = FIELDS[event["ph"]]
    assert set(event) == {"ph"} | set(fields), event
    for name, kind in fields.items():
        assert type(event[name]) is kind, event
    assert event.get("ts", 0) >= 0 and event["pid"] > 0, event
    if event["ph"] == "M":
        value = event["args"][METADATA[event["name"]]]
        assert isinstance(value, str if event["name"].endswith("_name") else int), event
    elif event["ph"] == "C":
        assert event["args"] and all(type(value) is int for value in event["args"].values()), event
    elif event["ph"] == "i":
        assert event["s"] in ("g", "p", "t"), event


def track_of(event):
    return (event["pid"], event["name"]) if event["ph"] == "C" else (event["pid"], event["tid"])


def check_tracks(events):
    """In each track time goes forward, and each begin has its end."""
    now, open_slices = {}, collections.Counter()
    for event in events:
        if event["ph"] == "M":
            continue
        track = track_of(event)
        assert event["ts"] >= now.get(track, 0), f"the time goes back: {event}"
        now[track] = event["ts"]
        open_slices[track] += {"B": 1, "E": -1}.get(event["ph"], 0)
        assert open_slices[track] >= 0, f"an end without a begin: {event}"
    assert not +open_slices, f"slices without an end: {+open_slices}"


def names_of(events, kind):
    return {(event["pid"], event["tid"] if kind == "thread" else 0): event["args"]["name"]
            for event in events if event["ph"] == "M" and event["name"] == kind + "_name"}


def tracks(events):
    """A line per track."""
    processes, threads = names_of(events, "process"), names_of(events, "thread")
    assert len({thread for _, thread in threads}) == len(threads), "a thread of two processes"
    found = {f"{processes[pid, 0]}: {name}": [] for (pid, _), name in threads.items()}
    for event in events:
        if event["ph"] == "M":
            continue
        label = event["name"] if event["ph"] == "C" else threads[track_of(event)]
        sign = {"B": "[", "E": "]", "i": "|", "C": "="}[event["ph"]]
        name = str(event["args"]["count"]) if event["ph"] == "C" else event.get("name", label)
        shown = f"{event['ts']}{sign}{name if name != label else ''}"
        found.setdefault(f"{processes[event['pid'], 0]}: {label}", []).append(shown)
    return [" ".join([label, *marks]) for label, marks in found.items()]


def check_order(events, names):
    now, open_slices, timed = 0, {}, []
    for event in events:
        if event["ph"] == "B":
            open_slices[track_of(event)] = event["name"]
        if event["ph"] in "BEi":
            timed.append((event["ts"], event.get("name") or "/" + open_slices[track_of(event)]))
    for name in names:
        later = [time for time, each in timed if each == name and time >= now]
        assert later, f"{name} does not follow"
        now = min(later)


def main(path, *names):
    with open(path, "rb") as file:
        trace = json.loads(file.read().decode("utf-8"), object_pairs_hook=unique)
    events = trace["traceEvents"]
    assert trace["displayTimeUnit"] in ("ms", "ns")
    for event in events:
        check_event(event)
    check_tracks(events)
    if names:
        check_order(events, names)
    else:
        print("\n".join(tracks(events)))


if __name__ == "__main__":
    main(*sys.argv[1:])
