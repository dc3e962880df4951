#!/usr/bin/env python3
"""The testbed's eyes: follows the daemon's log and the packet-filter
counters while a run goes on, and afterwards turns what it saw into a summary
table and an SVG picture.

  monitor  live lines per evaluation period (from the daemon's dump);
           writes a timeline (JSON lines, from its log and the rules)
  counters reads `iptables -L -v -x -n` listings from stdin, prints JSON
  report   summary table (text and JSON) and picture from a timeline
  check    asserts the end-to-end expectations on a summary
  check-rates, check-failover  the same for the estimates and a link's death
  spread   the figures the end-to-end checks bound, per run and their worst

Rates are kbit/s with 1 kbit = 1024 bit, the unit of the daemon's estimates.
"""
import argparse
import json
import math
import re
import signal
import statistics
import subprocess
import sys
import time

# --- parsing ---------------------------------------------------------------

LOG_LINE = re.compile(
    r"^(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3})\s+\d+\s+\d+ ([VDIWEF]) ([^:]*): (.*)$")
TURN_LINE = re.compile(
    r"^ VEK_RATIO : iface=(\S+), LRE= (-?\d+), PktCnt= (-?\d+), Max= (-?\d+), metered =(\d+)")
RATIO_LINE = re.compile(r"^VEK_RATIO (\S+), (\d+), (-?[0-9.]+(?:e[-+]?\d+)?|-?nan|-?inf)$")
TURN_END = re.compile(r"^ CALC2 -- ")
LINK_STATE = re.compile(r"^link (\S+) (down|up): ")
PROBABILITY = re.compile(r"--probability (\S+).*-j (\S+)")
COMMENT = re.compile(r"/\* (\S+) \*/")


def log_time(month, day, hh, mm, ss, ms, year=None):
    """Epoch seconds of a log timestamp (local time, year not logged)."""
    if year is None:
        year = time.localtime().tm_year
    return time.mktime((year, month, day, hh, mm, ss, 0, 0, -1)) + ms / 1000.0


def parse_log_line(line, year=None):
    """(epoch, priority, tag, message) of one log line, or None."""
    m = LOG_LINE.match(line.rstrip("\n"))
    if not m:
        return None
    mo, d, hh, mi, ss, ms = (int(x) for x in m.groups()[:6])
    return log_time(mo, d, hh, mi, ss, ms, year), m.group(7), m.group(8), m.group(9)


class LogReader:
    """Turns the daemon's log lines into timeline events.

    A turn's per-link lines are collected until the turn ends (the debug line
    that closes it, or a link met twice) and then given as one "turn" event.
    Changes of the computed shares are "ratio" events; the current shares are
    carried in each turn event.
    """

    def __init__(self, year=None):
        self.year = year
        self.shares = {}
        self.pending = None  # {"t":..., "est":{}, "pkt":{}, "max":{}, "metered":{}}

    def _flush(self):
        ev, self.pending = self.pending, None
        if ev is None:
            return []
        ev["share"] = dict(self.shares)
        return [ev]

    def feed(self, line):
        parsed = parse_log_line(line, self.year)
        if parsed is None:
            return []
        t, _prio, _tag, msg = parsed
        m = TURN_LINE.match(msg)
        if m:
            out = []
            if self.pending is not None and m.group(1) in self.pending["est"]:
                out = self._flush()
            if self.pending is None:
                self.pending = {"kind": "turn", "t": t, "est": {}, "pkt": {}, "max": {},
                                "metered": {}}
            iface = m.group(1)
            self.pending["est"][iface] = int(m.group(2))
            self.pending["pkt"][iface] = int(m.group(3))
            self.pending["max"][iface] = int(m.group(4))
            self.pending["metered"][iface] = int(m.group(5))
            return out
        m = RATIO_LINE.match(msg)
        if m:
            ratio = float(m.group(3))
            if not math.isfinite(ratio):
                ratio = 0.0  # keeps the timeline valid JSON
            self.shares[m.group(1)] = ratio
            return [{"kind": "ratio", "t": t, "iface": m.group(1), "lre": int(m.group(2)),
                     "ratio": ratio}]
        if TURN_END.match(msg):
            return self._flush()
        m = LINK_STATE.match(msg)
        if m:
            return [{"kind": "link" + m.group(2), "t": t, "iface": m.group(1)}]
        return []

    def close(self):
        return self._flush()


def parse_probabilities(rules_text):
    """[(link, probability)] in rule order, from `iptables -S kwop_VEK`."""
    out = []
    for line in rules_text.splitlines():
        m = PROBABILITY.search(line)
        if m and m.group(2).startswith("kwop_fw_"):
            out.append((m.group(2)[len("kwop_fw_"):], float(m.group(1))))
    return out


def cascade_shares(probabilities):
    """Share of new connections each rule takes: a rule sees only what the
    rules before it left. The rest stays unmarked."""
    shares, left = {}, 1.0
    for link, p in probabilities:
        p = min(max(p, 0.0), 1.0)
        shares[link] = shares.get(link, 0.0) + left * p
        left -= left * p
    shares["unmarked"] = max(left, 0.0)
    return shares


def parse_counters(text):
    """Counters from `iptables -L CHAIN -v -x -n` listings, each preceded by a
    line "== acct" or "== mark LINK". acct rules are named by their comments;
    for a mark chain the packets of its MARK rule count."""
    acct, mark, section = {}, {}, None
    for line in text.splitlines():
        if line.startswith("== "):
            section = line[3:].split()
            continue
        fields = line.split()
        if not section or len(fields) < 3 or not fields[0].isdigit():
            continue
        if section[0] == "acct":
            m = COMMENT.search(line)
            if m:
                acct[m.group(1)] = int(fields[0])
        elif section[0] == "mark" and len(section) > 1 and fields[2] == "MARK":
            mark[section[1]] = mark.get(section[1], 0) + int(fields[0])
    return {"acct": acct, "mark": mark}


# --- analysis ----------------------------------------------------------------

def load_timeline(path):
    events = []
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line:
                continue
            try:
                events.append(json.loads(line))
            except ValueError:
                continue  # a line cut short by a kill
    events.sort(key=lambda e: e.get("t", 0))
    return events


def step_average(points, t0, t1, initial=0.0):
    """Time average over [t0, t1] of a step function given as sorted
    (t, value) points; before the first point the value is `initial`."""
    if t1 <= t0:
        return None
    value, last, total = initial, t0, 0.0
    for t, v in points:
        if t <= t0:
            value = v
            continue
        if t >= t1:
            break
        total += value * (t - last)
        value, last = v, t
    total += value * (t1 - last)
    return total / (t1 - t0)


def weighted_average(points, initial, samples, t0, t1, key):
    """Average of a step function weighted by the new connections counted
    between counter samples (under `key`): what the shares predict for the
    connections actually made, whose rate changes with the links' rates.
    Without connections it is the plain time average over [t0, t1]."""
    total = weight = 0.0
    for a, b in zip(samples, samples[1:]):
        n = b["acct"].get(key, 0) - a["acct"].get(key, 0)
        if n <= 0 or b["t"] <= a["t"]:
            continue
        v = step_average(points, a["t"], b["t"], initial=_value_before(points, a["t"], initial))
        total += v * n
        weight += n
    if weight:
        return total / weight
    return step_average(points, t0, t1, initial=initial)


def first_at_or_after(events, kind, t):
    for e in events:
        if e["kind"] == kind and e["t"] >= t:
            return e
    return None


def last_before(events, kind, t):
    found = None
    for e in events:
        if e["kind"] == kind and e["t"] <= t:
            found = e
    return found


def segments(events):
    """Measurement windows: from the "measure" mark to the "end" mark, cut at
    every "shape" event in between. Each carries the shaped rates in force."""
    start = next((e["t"] for e in events if e["kind"] == "mark" and e["name"] == "measure"), None)
    end = next((e["t"] for e in events if e["kind"] == "mark" and e["name"] == "end"), None)
    if start is None or end is None or end <= start:
        return []
    shaped = {}
    cuts = []
    for e in events:
        if e["kind"] != "shape":
            continue
        if e["t"] <= start:
            shaped[e["link"]] = e["kbps"]
        elif e["t"] < end:
            cuts.append(e)
    out, t0 = [], start
    for cut in cuts:
        out.append({"t0": t0, "t1": cut["t"], "shaped": dict(shaped)})
        shaped[cut["link"]] = cut["kbps"]
        t0 = cut["t"]
    out.append({"t0": t0, "t1": end, "shaped": dict(shaped)})
    return out


def summarize_segment(events, seg, links, settle):
    t0, t1 = seg["t0"], seg["t1"]
    turns = [e for e in events if e["kind"] == "turn" and t0 + settle <= e["t"] <= t1]
    rules = [(e["t"], e["share"]) for e in events if e["kind"] == "rules"]
    ratios = [e for e in events if e["kind"] == "ratio"]
    c0 = first_at_or_after(events, "counters", t0)
    c1 = first_at_or_after(events, "counters", t1) or last_before(events, "counters", float("inf"))
    out = {"t0": t0, "t1": t1, "seconds": round(t1 - t0, 1), "links": {}}
    app_key = "uid%s:all" % seg.get("app_uid", "")
    samples = [e for e in events if e["kind"] == "counters"
               and c0 and c1 and c0["t"] <= e["t"] <= c1["t"]]

    app_total = app_marked = other_total = other_marked = 0
    if c0 and c1 and c1["t"] > c0["t"]:
        d = lambda table, key: c1[table].get(key, 0) - c0[table].get(key, 0)  # noqa: E731
        app, other = "uid%s" % seg.get("app_uid", ""), "uid%s" % seg.get("other_uid", "")
        app_total = d("acct", app + ":all")
        other_total = d("acct", other + ":all")
        for link in links:
            app_marked += d("mark", link)
            other_marked += d("acct", "%s:mark:%s" % (other, link))
        # A MARK rule also counts the odd late packet that conntrack takes for
        # a new connection; never report fewer connections than were marked.
        app_total = max(app_total, app_marked)
    for link in links:
        est = [e["est"][link] for e in turns if e["est"].get(link, 0) > 0]
        shaped = seg["shaped"].get(link)
        median = statistics.median(est) if est else None
        computed = weighted_average(
            [(e["t"], e["ratio"]) for e in ratios if e["iface"] == link],
            _share_before(ratios, link, t0), samples, t0, t1, app_key)
        installed_pts = [(t, s.get(link, 0.0)) for t, s in rules]
        installed = weighted_average(installed_pts, _value_before(installed_pts, t0),
                                     samples, t0, t1, app_key)
        conns = egress = None
        if c0 and c1 and c1["t"] > c0["t"]:
            conns = c1["mark"].get(link, 0) - c0["mark"].get(link, 0)
            key = "uid%s:out:%s" % (seg.get("app_uid", ""), link)
            egress = c1["acct"].get(key, 0) - c0["acct"].get(key, 0)
        out["links"][link] = {
            "shaped_kbps": shaped,
            "estimated_kbps": median,
            "estimates": len(est),
            "error_pct": (round(100.0 * (median - shaped) / shaped, 1)
                          if median is not None and shaped else None),
            "computed_share": _round(computed),
            "installed_share": _round(installed),
            "connections": conns,
            "carried_share": (_round(conns / app_total) if conns is not None and app_total
                              else None),
            # where those connections actually left: the marks must route them
            "egress_share": (_round(egress / app_total) if egress is not None and app_total
                             else None),
        }
    out["app_connections"] = app_total
    out["app_unmarked"] = app_total - app_marked
    out["other_connections"] = other_total
    out["other_marked"] = other_marked
    return out


def _share_before(ratios, link, t0):
    value = 0.0
    for e in ratios:
        if e["iface"] == link and e["t"] <= t0:
            value = e["ratio"]
    return value


def _value_before(points, t0, value=0.0):
    for t, v in points:
        if t <= t0:
            value = v
    return value


def _round(x, nd=3):
    return None if x is None else round(x, nd)


def _mark(events, name):
    return next((e["t"] for e in events if e["kind"] == "mark" and e["name"] == name), None)


def summarize_failover(events, app_uid, dead="rmnet_data0", live="wlan0"):
    """What a link's death did, between the "die" and "restore" marks: the
    time until the daemon computed share 0 for it (its rule is written in the
    same turn), the share of the enrolled UID's new connections that still
    went to it from 1 s after that (after the death when it never happened),
    the UID's goodput meanwhile against the live link's shaped rate, and the
    time from the restoration until the link's mark counter moves again."""
    die, restore = _mark(events, "die"), _mark(events, "restore")
    if die is None or restore is None:
        return None
    zero = next((e["t"] for e in events if e["kind"] == "ratio" and e["iface"] == dead
                 and die <= e["t"] <= restore and e["ratio"] == 0.0), None)
    down = next((e["t"] for e in events if e["kind"] == "linkdown" and e["iface"] == dead
                 and e["t"] >= die), None)
    w0, w1 = (zero if zero is not None else die) + 1.0, restore
    counters = [e for e in events if e["kind"] == "counters"]
    c0 = first_at_or_after(counters, "counters", w0)
    c1 = last_before(counters, "counters", w1)
    dead_share = conns = None
    if c0 and c1 and c1["t"] > c0["t"]:
        key = "uid%s:all" % app_uid
        conns = c1["acct"].get(key, 0) - c0["acct"].get(key, 0)
        into = c1["mark"].get(dead, 0) - c0["mark"].get(dead, 0)
        dead_share = into / conns if conns else None
    progress = [e for e in events if e["kind"] == "progress" and e.get("name") == "app"]
    p0 = first_at_or_after(progress, "progress", w0)
    p1 = last_before(progress, "progress", w1)
    goodput = None
    if p0 and p1 and p1["t"] > p0["t"]:
        goodput = (p1["bytes"] - p0["bytes"]) * 8 / 1024 / (p1["t"] - p0["t"])
    shaped = None
    for e in events:
        if e["kind"] == "shape" and e["link"] == live and e["t"] <= w0:
            shaped = e["kbps"]
    before = last_before(counters, "counters", restore)
    again = next((e["t"] for e in counters if before and e["t"] > restore
                  and e["mark"].get(dead, 0) > before["mark"].get(dead, 0)), None)
    return {
        "dead_link": dead,
        "down_detected_s": _round(down - die if down is not None else None, 2),
        "failover_s": _round(zero - die if zero is not None else None, 2),
        "dead_seconds": _round(w1 - w0, 1),
        "connections_while_dead": conns,
        "dead_share": _round(dead_share),
        "goodput_while_dead_kbps": _round(goodput, 0),
        "live_shaped_kbps": shaped,
        "carries_again_s": _round(again - restore if again is not None else None, 1),
    }


def summarize(events, links, traffic, app_uid, other_uid, settle=3.0, scenario=""):
    segs = segments(events)
    for s in segs:
        s["app_uid"], s["other_uid"] = app_uid, other_uid
    return {
        "scenario": scenario,
        "links": links,
        "segments": [summarize_segment(events, s, links, settle) for s in segs],
        "failover": summarize_failover(events, app_uid),
        "traffic": traffic,
        "app_uid": app_uid,
        "other_uid": other_uid,
    }


# --- presentation ------------------------------------------------------------

def _fmt(x, pattern, none="-"):
    return none if x is None else format(x, pattern)


def format_summary(summary):
    lines = []
    title = "Summary"
    if summary.get("scenario"):
        title += " - scenario " + summary["scenario"]
    lines += [title, "=" * len(title), ""]
    segs = summary["segments"]
    if not segs:
        lines.append("(no measurement window: the daemon never installed ratio rules)")
    for i, seg in enumerate(segs):
        if len(segs) > 1:
            lines.append("Period %d of %d (%.0f s)" % (i + 1, len(segs), seg["seconds"]))
        else:
            lines.append("Measured over %.0f s" % seg["seconds"])
        lines.append("%-12s %8s %10s %7s %9s %9s %9s %7s" % (
            "link", "shaped", "estimated", "error", "computed", "installed", "carried",
            "conns"))
        lines.append("%-12s %8s %10s %7s %9s %9s %9s %7s" % (
            "", "kbit/s", "kbit/s", "", "share", "share", "share", ""))
        for link in summary["links"]:
            r = seg["links"][link]
            est = r["estimated_kbps"]
            lines.append("%-12s %8s %10s %7s %9s %9s %9s %7s" % (
                link, _fmt(r["shaped_kbps"], "d"),
                "idle" if est is None else "%.0f" % est,
                "-" if r["error_pct"] is None else "%+.1f%%" % r["error_pct"],
                _fmt(r["computed_share"], ".2f"), _fmt(r["installed_share"], ".2f"),
                _fmt(r["carried_share"], ".2f"), _fmt(r["connections"], "d")))
        total = seg["app_connections"]
        lines.append("%-12s %8s %10s %7s %9s %9s %9s %7s" % (
            "(unmarked)", "", "", "", "", "", _fmt(seg["app_unmarked"] / total, ".2f")
            if total else "-", seg["app_unmarked"]))
        lines.append("new connections of UID %s: %d; of UID %s: %d, of which marked: %d" % (
            summary["app_uid"], total, summary["other_uid"], seg["other_connections"],
            seg["other_marked"]))
        lines.append("")
    f = summary.get("failover")
    if f:
        after = lambda x: "never" if x is None else "after %.2f s" % x  # noqa: E731
        lines.append("%s black-holed: down detected %s, share 0 %s" % (
            f["dead_link"], after(f["down_detected_s"]), after(f["failover_s"])))
        lines.append("  then (%s s, %s new connections): %s of them into the dead link; "
                     "goodput %s kbit/s against the WLAN's %s shaped" % (
                         _fmt(f["dead_seconds"], ".0f"), _fmt(f["connections_while_dead"], "d"),
                         _fmt(f["dead_share"], ".3f"), _fmt(f["goodput_while_dead_kbps"], ".0f"),
                         _fmt(f["live_shaped_kbps"], "d")))
        lines.append("  restored: carries new connections again %s" % after(f["carries_again_s"]))
        lines.append("")
    traffic = summary.get("traffic") or {}
    if traffic:
        lines.append("%-24s %7s %12s %8s %10s" % ("application", "UID", "connections",
                                                  "of them", "goodput"))
        lines.append("%-24s %7s %12s %8s %10s" % ("", "", "", "HTTPS", "kbit/s"))
        for label, key in (("enrolled", "app"), ("not enrolled", "other")):
            t = traffic.get(key)
            if t:
                lines.append("%-24s %7s %12d %8d %10.0f" % (
                    label, t.get("uid"), t["connections"], t.get("https", 0), t["goodput_kbps"]))
        lines.append("")
    lines.append("Rates in kbit/s of 1024 bit; shares are of the enrolled UID's new "
                 "connections to port 80/443.")
    lines.append("computed: the daemon's ratios; installed: the probabilities in kwop_VEK; "
                 "carried: MARK rule counters.")
    return "\n".join(lines)


COLORS = {0: "#1f77b4", 1: "#d62728", 2: "#2ca02c", 3: "#9467bd"}


def _esc(s):
    return str(s).replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def render_svg(events, links, title=""):
    """Two panels over time: each link's rate estimate (with its shaped rate
    dashed), and each link's computed share (with the carried share as dots,
    from counter differences between samples)."""
    width, height = 900, 560
    left, right = 70, 150
    panels = [(50, 230), (320, 500)]  # y top, y bottom
    start = next((e["t"] for e in events if e["kind"] == "mark" and e["name"] == "traffic"),
                 events[0]["t"] if events else 0.0)
    # Up to the end of the traffic: later turns only show the links going idle.
    end = next((e["t"] for e in events if e["kind"] == "mark" and e["name"] == "end"),
               max([e["t"] for e in events] + [start + 1.0]))
    end = max(end, start + 1.0)
    events = [e for e in events if e["t"] <= end]
    span = end - start

    def x(t):
        return left + (width - left - right) * (t - start) / span

    turns = [e for e in events if e["kind"] == "turn" and e["t"] >= start]
    shapes = [e for e in events if e["kind"] == "shape"]
    peak = max([v for e in turns for v in e["est"].values()] +
               [e["kbps"] for e in shapes] + [100])
    rate_step = _tick_step(peak * 1.05, 6)
    ymax = rate_step * -(-peak * 1.05 // rate_step)

    def y_rate(v):
        top, bottom = panels[0]
        return bottom - (bottom - top) * min(v, ymax) / ymax

    def y_share(v):
        top, bottom = panels[1]
        return bottom - (bottom - top) * min(max(v, 0.0), 1.0)

    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
           'font-family="sans-serif" font-size="12">' % (width, height),
           '<rect width="100%" height="100%" fill="white"/>']
    if title:
        out.append('<text x="%d" y="22" font-size="15" font-weight="bold">%s</text>'
                   % (left, _esc(title)))
    for (top, bottom), label in zip(panels, ("rate estimate, kbit/s", "share of new connections")):
        out.append('<rect x="%d" y="%d" width="%d" height="%d" fill="none" stroke="#888"/>'
                   % (left, top, width - left - right, bottom - top))
        out.append('<text x="%d" y="%d" transform="rotate(-90 %d %d)" text-anchor="middle">%s'
                   '</text>' % (18, (top + bottom) // 2, 18, (top + bottom) // 2, _esc(label)))
    ticks = [(y_rate(i * rate_step), "%d" % (i * rate_step))
             for i in range(int(round(ymax / rate_step)) + 1)]
    ticks += [(y_share(i / 4), "%.2f" % (i / 4)) for i in range(5)]
    for yy, text in ticks:
        out.append('<text x="%d" y="%.1f" text-anchor="end">%s</text>' % (left - 5, yy + 4, text))
        out.append('<line x1="%d" x2="%d" y1="%.1f" y2="%.1f" stroke="#eee"/>'
                   % (left, width - right, yy, yy))
    step = _tick_step(span, 10)
    t = 0.0
    while t <= span:
        out.append('<text x="%.1f" y="%d" text-anchor="middle">%g</text>'
                   % (x(start + t), panels[1][1] + 16, t))
        t += step
    out.append('<text x="%d" y="%d" text-anchor="middle">time, s</text>'
               % ((left + width - right) // 2, panels[1][1] + 34))
    for e in events:
        if e["kind"] == "mark" and e["name"] in ("measure", "end") and e["t"] >= start:
            out.append('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" stroke="#bbb" '
                       'stroke-dasharray="2,3"/>' % (x(e["t"]), x(e["t"]), panels[0][0],
                                                      panels[1][1]))
        if e["kind"] == "mark" and e["name"] in ("die", "restore") and e["t"] >= start:
            label = "WWAN dies" if e["name"] == "die" else "WWAN restored"
            out.append('<line x1="%.1f" x2="%.1f" y1="%d" y2="%d" stroke="black" '
                       'stroke-width="1.5"/>' % (x(e["t"]), x(e["t"]), panels[0][0],
                                                 panels[1][1]))
            out.append('<text x="%.1f" y="%d" text-anchor="middle">%s</text>'
                       % (x(e["t"]), panels[0][0] - 6, label))

    for i, link in enumerate(links):
        color = COLORS[i % len(COLORS)]
        # shaped rate: dashed steps
        pts, current = [], None
        for e in shapes:
            if e["link"] != link:
                continue
            if current is not None:
                pts.append((max(e["t"], start), current))
            current = e["kbps"]
            pts.append((max(e["t"], start), current))
        if current is not None:
            pts.append((end, current))
            out.append('<polyline fill="none" stroke="%s" stroke-dasharray="6,4" '
                       'stroke-width="1.5" points="%s"/>'
                       % (color, " ".join("%.1f,%.1f" % (x(t), y_rate(v)) for t, v in pts)))
        est = [(e["t"], e["est"][link]) for e in turns if link in e["est"]]
        if est:
            out.append('<polyline fill="none" stroke="%s" stroke-width="2" points="%s"/>'
                       % (color, " ".join("%.1f,%.1f" % (x(t), y_rate(v)) for t, v in est)))
        # computed share: steps
        share_pts, value = [(start, 0.0)], 0.0
        for e in events:
            if e["kind"] == "ratio" and e["iface"] == link:
                if e["t"] <= start:
                    share_pts = [(start, e["ratio"])]
                else:
                    share_pts += [(e["t"], value), (e["t"], e["ratio"])]
                value = e["ratio"]
        share_pts.append((end, value))
        out.append('<polyline fill="none" stroke="%s" stroke-width="2" points="%s"/>'
                   % (color, " ".join("%.1f,%.1f" % (x(t), y_share(v)) for t, v in share_pts)))
        for t, v in carried_points(events, link, start):
            out.append('<circle cx="%.1f" cy="%.1f" r="2.5" fill="%s" fill-opacity="0.6"/>'
                       % (x(t), y_share(v), color))
        ly = panels[0][0] + 20 + 22 * i
        out.append('<line x1="%d" x2="%d" y1="%d" y2="%d" stroke="%s" stroke-width="2"/>'
                   % (width - right + 10, width - right + 30, ly, ly, color))
        out.append('<text x="%d" y="%d">%s</text>' % (width - right + 35, ly + 4, _esc(link)))
    ly = panels[0][0] + 20 + 22 * len(links) + 10
    out.append('<line x1="%d" x2="%d" y1="%d" y2="%d" stroke="#555" stroke-dasharray="6,4"/>'
               % (width - right + 10, width - right + 30, ly, ly))
    out.append('<text x="%d" y="%d">shaped rate</text>' % (width - right + 35, ly + 4))
    ly = panels[1][0] + 20
    out.append('<line x1="%d" x2="%d" y1="%d" y2="%d" stroke="#555" stroke-width="2"/>'
               % (width - right + 10, width - right + 30, ly, ly))
    out.append('<text x="%d" y="%d">computed</text>' % (width - right + 35, ly + 4))
    out.append('<circle cx="%d" cy="%d" r="3" fill="#555"/>' % (width - right + 20, ly + 22))
    out.append('<text x="%d" y="%d">carried (10 s)</text>' % (width - right + 35, ly + 26))
    out.append("</svg>")
    return "\n".join(out) + "\n"


def carried_points(events, link, start, window=10.0):
    """Share of the enrolled UID's new connections marked for `link`, from
    counter samples `window` seconds apart."""
    samples = [e for e in events if e["kind"] == "counters" and e["t"] >= start]
    out = []
    app = next((e.get("app_uid") for e in samples if e.get("app_uid")), None)
    j = 0
    for i, s in enumerate(samples):
        while j < i and samples[j]["t"] < s["t"] - window:
            j += 1
        if j >= i or s["t"] - samples[j]["t"] < window * 0.8:
            continue
        a, b = samples[j], s
        total = b["acct"].get("uid%s:all" % app, 0) - a["acct"].get("uid%s:all" % app, 0)
        if total <= 0:
            continue
        mine = b["mark"].get(link, 0) - a["mark"].get(link, 0)
        out.append(((a["t"] + b["t"]) / 2, mine / total))
    return out[::2]


def _tick_step(span, most):
    """The smallest step of 1, 2 or 5 times a power of ten that cuts `span`
    into at most `most` parts."""
    step = 1.0
    while span / step > most:
        for m in (2.0, 2.5, 2.0):  # 1 -> 2 -> 5 -> 10
            step *= m
            if span / step <= most:
                break
    return step


def parse_dump(text):
    """{"turns": N, "links": {name: {column: text}}} from `vekctl dump`."""
    out = {"turns": None, "links": {}}
    lines = text.splitlines()
    for i, line in enumerate(lines):
        words = line.split()
        if words[:1] == ["evaluation_turns"] and len(words) == 2:
            out["turns"] = int(words[1])
        if line.startswith("links: ") and i + 1 < len(lines):
            titles = lines[i + 1].split()
            for row in lines[i + 2:]:
                # The health cell has blanks of its own: it is the last column.
                cells = row.split(None, len(titles) - 1)
                if not row.startswith("  ") or len(cells) != len(titles):
                    break
                out["links"][cells[0]] = dict(zip(titles, cells))
    return out


def live_line(dump, t0, links):
    parts = ["%6.1fs" % (time.time() - t0)]
    for link in links:
        row = dump["links"].get(link, {})
        part = "%-11s %6s kbit/s  share %s (rules %s)" % (
            link, row.get("estimate_kbps", "-"), row.get("computed_share", "-"),
            row.get("installed_share", "-"))
        if "health" in row:
            part += "  " + row["health"]
        parts.append(part)
    return "  |  ".join(parts)


def take_dump(vekctl):
    r = subprocess.run([vekctl, "dump"], capture_output=True, text=True)
    return parse_dump(r.stdout) if r.returncode == 0 else None


# --- commands ----------------------------------------------------------------

def iptables(*args):
    r = subprocess.run(["iptables", "-w", "-t", "mangle"] + list(args),
                       capture_output=True, text=True)
    return r.stdout if r.returncode == 0 else ""


def sample_rules(links, app_uid):
    now = time.time()
    probs = parse_probabilities(iptables("-S", "kwop_VEK"))
    text = "== acct\n" + iptables("-L", "tb_acct", "-v", "-x", "-n")
    for link in links:
        text += "== mark %s\n" % link + iptables("-L", "kwop_fw_" + link, "-v", "-x", "-n")
    out = [{"kind": "counters", "t": now, "app_uid": app_uid, **parse_counters(text)}]
    # The daemon writes one rule per link after flushing the chain; a listing
    # with fewer caught it in the middle of a rewrite.
    if len(probs) == len(links):
        out.append({"kind": "rules", "t": now, "prob": probs, "share": cascade_shares(probs)})
    return out


def cmd_monitor(args):
    stop = []
    signal.signal(signal.SIGTERM, lambda *_: stop.append(1))
    signal.signal(signal.SIGINT, lambda *_: stop.append(1))
    reader = LogReader()
    out = open(args.timeline, "a")
    t0 = time.time()
    pos = 0
    next_sample = 0.0
    buf = ""
    last_turns = None

    def emit(ev):
        out.write(json.dumps(ev) + "\n")
        out.flush()

    while not stop:
        try:
            with open(args.log, errors="replace") as f:
                f.seek(pos)
                buf += f.read()
                pos = f.tell()
        except OSError:
            pass
        *complete, buf = buf.split("\n")
        for line in complete:
            for ev in reader.feed(line):
                emit(ev)
        now = time.monotonic()
        if now >= next_sample:
            next_sample = now + args.sample
            for ev in sample_rules(args.links, args.app_uid):
                emit(ev)
        # One live line per evaluation turn, as the daemon reports itself.
        dump = take_dump(args.vekctl) if args.vekctl else None
        if dump and dump["turns"] is not None and dump["turns"] != last_turns:
            if last_turns is not None:
                print(live_line(dump, t0, args.links), flush=True)
            last_turns = dump["turns"]
        time.sleep(0.2)
    for ev in reader.close():
        emit(ev)
    out.close()
    return 0


def cmd_counters(_args):
    print(json.dumps(parse_counters(sys.stdin.read())))
    return 0


def cmd_report(args):
    events = load_timeline(args.timeline)
    traffic = {}
    for key, path in (("app", args.app_result), ("other", args.other_result)):
        if path:
            traffic[key] = _last_json(path)
    summary = summarize(events, args.links, traffic, args.app_uid, args.other_uid,
                        settle=args.settle, scenario=args.scenario)
    with open(args.out + "/summary.json", "w") as f:
        json.dump(summary, f, indent=1)
    text = format_summary(summary)
    with open(args.out + "/summary.txt", "w") as f:
        f.write(text + "\n")
    with open(args.out + "/picture.svg", "w") as f:
        f.write(render_svg(events, args.links, title="vekd testbed: " + args.scenario))
    print(text)
    return 0


def _last_json(path):
    try:
        with open(path) as f:
            lines = [l for l in f.read().splitlines() if l.startswith("{")]
        return json.loads(lines[-1]) if lines else None
    except (OSError, ValueError):
        return None


def share_gaps(r):
    """A link's percentage points between carried and computed share, and
    between routed and marked share; None where a share was not measured."""
    if r["carried_share"] is None:
        return None, None
    apart = None if r["computed_share"] is None else 100.0 * abs(r["carried_share"] - r["computed_share"])
    egress = None if r.get("egress_share") is None else 100.0 * abs(r["egress_share"] - r["carried_share"])
    return apart, egress


def check_summary(summary, tolerance_pp, min_conns, segment=-1):
    """Failures (texts) of the end-to-end expectations; empty when all hold."""
    fails = []
    if not summary["segments"]:
        return ["no measurement window"]
    seg = summary["segments"][segment]
    if seg["app_connections"] < min_conns:
        fails.append("only %d new connections of the enrolled UID (need %d)"
                     % (seg["app_connections"], min_conns))
    spread = [l for l, r in seg["links"].items() if r["connections"]]
    if len(spread) < len(seg["links"]):
        fails.append("connections not spread over every link: %s"
                     % {l: r["connections"] for l, r in seg["links"].items()})
    for link, r in seg["links"].items():
        apart, egress = share_gaps(r)
        if apart is None:
            fails.append("%s: no share measured" % link)
            continue
        if apart > tolerance_pp:
            fails.append("%s: carried share %.3f vs computed %.3f (%.1f points apart)"
                         % (link, r["carried_share"], r["computed_share"], apart))
        if egress is not None and egress > tolerance_pp:
            fails.append("%s: %.3f of the connections marked for it but %.3f left through it"
                         % (link, r["carried_share"], r["egress_share"]))
    if seg["other_connections"] == 0:
        fails.append("the not-enrolled UID made no connections")
    if seg["other_marked"] != 0:
        fails.append("%d connections of the not-enrolled UID were marked" % seg["other_marked"])
    return fails


def check_rates(summary, tolerance_pct, segment=-1):
    """Failures of the estimates against the shaped rates, every link busy."""
    if not summary["segments"]:
        return ["no measurement window"]
    fails = []
    for link, r in summary["segments"][segment]["links"].items():
        if r["error_pct"] is None:
            fails.append("%s: no rate estimate" % link)
        elif abs(r["error_pct"]) > tolerance_pct:
            fails.append("%s: estimate %.0f kbit/s against %d shaped (%+.1f %%)"
                         % (link, r["estimated_kbps"], r["shaped_kbps"], r["error_pct"]))
    return fails


def check_failover(summary, max_failover, max_dead_share, max_recovery):
    """Failures of the failover expectations; empty when all hold."""
    f = summary.get("failover")
    if not f:
        return ["no black-holing in this run"]
    fails = []
    if f["failover_s"] is None or f["failover_s"] >= max_failover:
        fails.append("share 0 for %s after %s s (limit %g s)"
                     % (f["dead_link"], f["failover_s"], max_failover))
    if f["dead_share"] is None or f["dead_share"] > max_dead_share:
        fails.append("%s of the new connections went into the dead link (limit %g)"
                     % (f["dead_share"], max_dead_share))
    if f["carries_again_s"] is None or f["carries_again_s"] > max_recovery:
        fails.append("the restored link carried connections again after %s s (limit %g s)"
                     % (f["carries_again_s"], max_recovery))
    return fails


def cmd_check(args):
    with open(args.summary) as f:
        summary = json.load(f)
    if args.cmd == "check-failover":
        fails = check_failover(summary, args.max_failover, args.max_dead_share,
                               args.max_recovery)
    elif args.cmd == "check-rates":
        fails = check_rates(summary, args.tolerance)
    else:
        fails = check_summary(summary, args.tolerance, args.min_conns)
    for f_ in fails:
        print("  " + f_)
    return 1 if fails else 0


def spread_row(main, dies):
    """The figures the end-to-end bounds limit, from one run's two summaries."""
    seg = main["segments"][-1] if main["segments"] else {"links": {}, "app_connections": 0}
    links = seg["links"].values()
    gaps = [share_gaps(r) for r in links]
    apart = [a for a, _ in gaps if a is not None]
    egress = [e for _, e in gaps if e is not None]
    rates = [abs(r["error_pct"]) for r in links if r["error_pct"] is not None]
    f = dies.get("failover") or {}
    return {"connections": seg["app_connections"], "share_points": max(apart, default=None),
            "egress_points": max(egress, default=None), "rate_error_pct": max(rates, default=None),
            "failover_s": f.get("failover_s"), "dead_share": f.get("dead_share"),
            "carries_again_s": f.get("carries_again_s")}


def cmd_spread(args):
    rows = []
    for d in args.runs:
        try:
            with open(d + "/summary.json") as a, open(d + "/link-dies/summary.json") as b:
                rows.append((d, spread_row(json.load(a), json.load(b))))
        except (OSError, ValueError, KeyError) as e:
            print("%s: no summary (%s)" % (d, e))
    keys = ["connections", "share_points", "egress_points", "rate_error_pct",
            "failover_s", "dead_share", "carries_again_s"]
    print("run " + " ".join(keys))
    for d, r in rows:
        print(d.rsplit("/", 1)[-1] + " " + " ".join(_fmt(r[k], ".3g") for k in keys))
    # The worst is the least connections and the largest of everything else.
    worst = {k: (min if k == "connections" else max)(
        [r[k] for _, r in rows if r[k] is not None], default=None) for k in keys}
    print("worst " + " ".join(_fmt(worst[k], ".3g") for k in keys))
    return 0


def main(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = p.add_subparsers(dest="cmd", required=True)
    m = sub.add_parser("monitor", help="live lines and timeline (run in the client namespace)")
    m.add_argument("--log", required=True)
    m.add_argument("--timeline", required=True)
    m.add_argument("--links", nargs="+", required=True)
    m.add_argument("--app-uid", default="10123")
    m.add_argument("--sample", type=float, default=1.0, help="seconds between rule samples")
    m.add_argument("--vekctl", help="vekctl to take the daemon's dump with (VEKD_ROOT set)")
    sub.add_parser("counters", help="parse iptables listings from stdin")
    r = sub.add_parser("report", help="summary table and picture")
    r.add_argument("--timeline", required=True)
    r.add_argument("--links", nargs="+", required=True)
    r.add_argument("--out", required=True, help="directory for summary.* and picture.svg")
    r.add_argument("--app-result")
    r.add_argument("--other-result")
    r.add_argument("--app-uid", default="10123")
    r.add_argument("--other-uid", default="10124")
    r.add_argument("--scenario", default="")
    r.add_argument("--settle", type=float, default=3.0,
                   help="seconds after a change before estimates count")
    c = sub.add_parser("check", help="assert shares and marks on summary.json")
    c.add_argument("--summary", required=True)
    c.add_argument("--tolerance", type=float, default=10.0, help="percentage points")
    c.add_argument("--min-conns", type=int, default=400)
    c = sub.add_parser("check-rates", help="assert the estimates on summary.json")
    c.add_argument("--summary", required=True)
    c.add_argument("--tolerance", type=float, default=20.0, help="percent of the shaped rate")
    c = sub.add_parser("check-failover", help="assert the failover figures on summary.json")
    c.add_argument("--summary", required=True)
    c.add_argument("--max-failover", type=float, default=3.0, help="seconds")
    c.add_argument("--max-dead-share", type=float, default=0.05)
    c.add_argument("--max-recovery", type=float, default=10.0, help="seconds")
    c = sub.add_parser("spread", help="the bounded figures of several e2e runs, and the worst")
    c.add_argument("runs", nargs="+", help="e2e output directories")
    args = p.parse_args(argv)
    return {"spread": cmd_spread, "monitor": cmd_monitor, "counters": cmd_counters, "report": cmd_report,
            "check": cmd_check, "check-rates": cmd_check,
            "check-failover": cmd_check}[args.cmd](args)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
