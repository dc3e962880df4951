"""The testbed's report tool against fixed log texts, iptables listings and
timelines."""
import json
import os
import sys
import unittest
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import tbreport as tb  # noqa: E402

YEAR = 2030


def log(ts, prio, tag, msg):
    return "11-22 %s 20361 20361 %s %s: %s" % (ts, prio, tag, msg)


def turn_line(ts, iface, lre, metered, pkt=12):
    return log(ts, "D", "VekStatsImpl",
               " VEK_RATIO : iface=%s, LRE= %d, PktCnt= %d, Max= %d, metered =%d "
               "mamaxUnmeteredLRE=0" % (iface, lre, pkt, lre, metered))


class LogParsing(unittest.TestCase):
    def test_records_and_what_is_not_one(self):
        t, prio, tag, msg = tb.parse_log_line(log("16:33:35.326", "E", "VekStatsImpl", "a: b"), YEAR)
        self.assertEqual((prio, tag, msg), ("E", "VekStatsImpl", "a: b"))  # ": " inside is kept
        t2 = tb.parse_log_line(log("16:33:36.000", "I", "x", "y"), YEAR)[0]
        self.assertAlmostEqual(t2 - t, 0.674, places=3)
        for line in ("", "sh: 1: iptables: not found", "11-22 16:33:35 1 1 E tag: no milliseconds"):
            self.assertIsNone(tb.parse_log_line(line, YEAR), line)

    def test_turns_end_at_the_closing_line_or_a_repeated_link(self):
        r = tb.LogReader(YEAR)
        lines = [
            log("10:00:00.000", "D", "VekStatsImpl", " CALC2 ++ "),
            turn_line("10:00:00.001", "rmnet_data0", 1944, 1),
            turn_line("10:00:00.002", "wlan0", 967, 0),
            log("10:00:00.003", "E", "VekStatsImpl", "VEK_RATIO wlan0, 967, 0.604375"),
            log("10:00:00.003", "E", "VekStatsImpl", "VEK_RATIO rmnet_data0, 1944, -nan"),
            log("10:00:00.004", "D", "VekStatsImpl",
                "calcVekRatios VEK_RATIO (1) iface= wlan0 metered =0, LRE = 5 , calcRatio =0.1 "),
            log("10:00:00.009", "D", "VekStatsImpl", " CALC2 -- "),
            turn_line("10:00:01.001", "a", 1, 0), turn_line("10:00:01.002", "a", 3, 0),
        ]
        events = [e for line in lines for e in r.feed(line)] + r.close()
        turns = [e for e in events if e["kind"] == "turn"]
        self.assertEqual([e["ratio"] for e in events if e["kind"] == "ratio"], [0.604375, 0.0])
        self.assertEqual(turns[0]["est"], {"rmnet_data0": 1944, "wlan0": 967})
        self.assertEqual(turns[0]["metered"], {"rmnet_data0": 1, "wlan0": 0})
        self.assertEqual(turns[0]["share"], {"rmnet_data0": 0.0, "wlan0": 0.604375})
        self.assertEqual([t["est"] for t in turns[1:]], [{"a": 1}, {"a": 3}])


VEK_RULES = """-N kwop_VEK
-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW -m statistic --mode random --probability 0.60312499991 -j kwop_fw_wlan0
-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW -m statistic --mode random --probability 0.99999999953 -j kwop_fw_rmnet_data0
"""

COUNTERS = """== acct
Chain tb_acct (1 references)
    pkts      bytes target     prot opt in     out     source               destination
     500    30000            6    --  *      *       0.0.0.0/0            0.0.0.0/0            owner UID match 10123 /* uid10123:all */
     301    18060            6    --  *      *       0.0.0.0/0            0.0.0.0/0            owner UID match 10123 mark match 0x5a /* uid10123:mark:wlan0 */
       7      420            6    --  *      *       0.0.0.0/0            0.0.0.0/0            owner UID match 10124 mark match 0x5b /* uid10124:mark:rmnet_data0 */
== mark wlan0
Chain kwop_fw_wlan0 (2 references)
    pkts      bytes target     prot opt in     out     source               destination
     301    18060 MARK       0    --  *      *       0.0.0.0/0            0.0.0.0/0            MARK set 0x5a
     301    18060 CONNMARK   0    --  *      *       0.0.0.0/0            0.0.0.0/0            CONNMARK save
     301    18060 ACCEPT     0    --  *      *       0.0.0.0/0            0.0.0.0/0
== mark rmnet_data0
"""


class RulesAndCounters(unittest.TestCase):
    def test_cascade_of_installed_probabilities(self):
        probs = tb.parse_probabilities(VEK_RULES + "-A kwop_VEK --probability 0.5 -j ACCEPT\n")
        self.assertEqual([l for l, _ in probs], ["wlan0", "rmnet_data0"])  # only mark chains
        shares = tb.cascade_shares(probs)
        self.assertAlmostEqual(shares["wlan0"], 0.603125, places=6)
        self.assertAlmostEqual(shares["rmnet_data0"], 0.396875, places=6)
        for probs, rest, unmarked in (([("a", 0.5), ("b", 0.5)], 0.25, 0.25),
                                      ([("a", 0.8), ("b", 4.0)], 0.2, 0.0)):  # above 1: all the rest
            shares = tb.cascade_shares(probs)
            self.assertAlmostEqual(shares["b"], rest)
            self.assertAlmostEqual(shares["unmarked"], unmarked)
        self.assertEqual(tb.cascade_shares([]), {"unmarked": 1.0})

    def test_counters_by_comment_and_mark_rule(self):
        c = tb.parse_counters(COUNTERS)
        self.assertEqual(c["acct"], {"uid10123:all": 500, "uid10123:mark:wlan0": 301,
                                     "uid10124:mark:rmnet_data0": 7})
        self.assertEqual(c["mark"], {"wlan0": 301})


def timeline(shape_change=False):
    """Two links over 20 s: 1000 and 2000 kbit/s shaped, estimates a little
    below, shares 0.6/0.4, counters growing by 10 connections a second of
    which 6 go to wlan0."""
    ev = [{"kind": "shape", "link": "wlan0", "kbps": 1000, "t": 0.0},
          {"kind": "shape", "link": "rmnet_data0", "kbps": 2000, "t": 0.0},
          {"kind": "mark", "name": "traffic", "t": 1.0},
          {"kind": "mark", "name": "measure", "t": 2.0},
          {"kind": "ratio", "t": 1.5, "iface": "wlan0", "lre": 950, "ratio": 0.6},
          {"kind": "ratio", "t": 1.5, "iface": "rmnet_data0", "lre": 1900, "ratio": 0.4},
          {"kind": "mark", "name": "end", "t": 22.0}]
    if shape_change:
        ev.append({"kind": "shape", "link": "wlan0", "kbps": 4000, "t": 12.0})
    for s in range(2, 24):
        fast = shape_change and s >= 12
        ev.append({"kind": "turn", "t": s + 0.1,
                   "est": {"wlan0": 3900 if fast else 950 + (s % 3) * 10, "rmnet_data0": 1900},
                   "pkt": {}, "max": {}, "metered": {}, "share": {}})
        ev.append({"kind": "rules", "t": s + 0.0, "prob": [],
                   "share": {"wlan0": 0.6, "rmnet_data0": 0.4, "unmarked": 0.0}})
        n = s - 2
        ev.append({"kind": "counters", "t": s + 0.0, "app_uid": "10123",
                   "acct": {"uid10123:all": 10 * n, "uid10124:all": 5 * n,
                            "uid10123:out:wlan0": 6 * n, "uid10123:out:rmnet_data0": 4 * n},
                   "mark": {"wlan0": 6 * n, "rmnet_data0": 4 * n}})
    ev.sort(key=lambda e: e["t"])
    return ev


class Analysis(unittest.TestCase):
    def test_summary_of_one_window(self):
        s = tb.summarize(timeline(), ["wlan0", "rmnet_data0"], {}, "10123", "10124")
        self.assertEqual(len(s["segments"]), 1)
        seg = s["segments"][0]
        w, r = seg["links"]["wlan0"], seg["links"]["rmnet_data0"]
        self.assertEqual(seg["app_connections"], 200)
        self.assertEqual(seg["other_connections"], 100)
        self.assertEqual(seg["other_marked"], 0)
        self.assertEqual((w["connections"], r["connections"]), (120, 80))
        self.assertEqual((w["carried_share"], r["carried_share"]), (0.6, 0.4))
        self.assertEqual((w["egress_share"], r["egress_share"]), (0.6, 0.4))
        self.assertEqual((w["computed_share"], r["computed_share"]), (0.6, 0.4))
        self.assertEqual(w["estimated_kbps"], 960)
        self.assertEqual(w["error_pct"], -4.0)
        self.assertEqual(r["error_pct"], -5.0)
        self.assertEqual(tb.check_summary(s, 10, 200), [])
        self.assertEqual(tb.check_rates(s, 20), [])
        self.assertNotEqual(tb.check_rates(s, 4.5), [])

    def test_a_shaping_change_cuts_the_window_and_no_mark_no_window(self):
        s = tb.summarize(timeline(shape_change=True), ["wlan0", "rmnet_data0"], {}, "10123", "10124")
        first, second = s["segments"]
        self.assertEqual(first["links"]["wlan0"]["shaped_kbps"], 1000)
        self.assertEqual(second["links"]["wlan0"]["estimated_kbps"], 3900)
        self.assertEqual(first["app_connections"] + second["app_connections"], 200)
        ev = [e for e in timeline() if e.get("name") != "measure"]
        s = tb.summarize(ev, ["wlan0"], {}, "10123", "10124")
        self.assertEqual(tb.check_summary(s, 10, 1), ["no measurement window"])

    def test_checks_catch_what_goes_wrong(self):
        ev = timeline()
        for e in ev:
            if e["kind"] == "counters":
                n = int(e["t"]) - 2
                e["mark"] = {"wlan0": 9 * n, "rmnet_data0": 1 * n}   # carried 0.9 / 0.1
                e["acct"]["uid10124:mark:wlan0"] = 1 if n else 0
        s = tb.summarize(ev, ["wlan0", "rmnet_data0"], {}, "10123", "10124")
        fails = tb.check_summary(s, 10, 400)
        text = "\n".join(fails)
        self.assertIn("only 200 new connections", text)
        self.assertIn("wlan0: carried share 0.900 vs computed 0.600", text)
        self.assertIn("rmnet_data0: carried share", text)
        self.assertIn("1 connections of the not-enrolled UID were marked", text)
        self.assertIn("wlan0: 0.900 of the connections marked for it but 0.600 left through it",
                      text)

    def test_marks_beyond_the_counted_connections_never_go_negative(self):
        ev = timeline()
        for e in ev:
            if e["kind"] == "counters":
                e["mark"]["wlan0"] += int(e["t"])  # late packets taken for new connections
        seg = tb.summarize(ev, ["wlan0", "rmnet_data0"], {}, "10123", "10124")["segments"][0]
        self.assertEqual(seg["app_unmarked"], 0)
        self.assertEqual(seg["app_connections"], 220)
        shares = [r["carried_share"] for r in seg["links"].values()]
        self.assertAlmostEqual(sum(shares), 1.0, places=2)

    def test_an_idle_link_has_no_estimate(self):
        ev = [e for e in timeline() if e["kind"] != "turn"]
        s = tb.summarize(ev, ["wlan0", "rmnet_data0"], {}, "10123", "10124")
        r = s["segments"][0]["links"]["rmnet_data0"]
        self.assertIsNone(r["estimated_kbps"])
        self.assertEqual(tb.check_rates(s, 20), ["wlan0: no rate estimate",
                                                 "rmnet_data0: no rate estimate"])
        self.assertIn("idle", tb.format_summary(s))


class Presentation(unittest.TestCase):
    def test_summary_table(self):
        traffic = {"app": {"uid": 10123, "connections": 210, "goodput_kbps": 2019.4},
                   "other": {"uid": 10124, "connections": 105, "goodput_kbps": 356.0}}
        s = tb.summarize(timeline(), ["wlan0", "rmnet_data0"], traffic, "10123", "10124",
                         scenario="slow-wlan")
        text = tb.format_summary(s)
        row = next(l for l in text.splitlines() if l.startswith("wlan0"))
        self.assertEqual(row.split(), ["wlan0", "1000", "960", "-4.0%", "0.60", "0.60", "0.60", "120"])
        self.assertIn("not enrolled", text)
        self.assertIn("2019", text)
        json.dumps(s)  # what the report writes must be JSON

    def test_picture_is_well_formed_svg_with_a_line_per_link(self):
        ET.fromstring(tb.render_svg([], ["wlan0"]))
        svg = tb.render_svg(timeline(shape_change=True), ["wlan0", "rmnet_data0"], title="a <b> & c")
        lines = ET.fromstring(svg).findall("{http://www.w3.org/2000/svg}polyline")
        self.assertEqual(len(lines), 6)  # per link: shaped, estimate, computed share
        for pt in " ".join(pl.get("points") for pl in lines).split():
            x, y = (float(v) for v in pt.split(","))
            self.assertTrue(0 <= x <= 900 and 0 <= y <= 560, pt)

    def test_live_line_from_the_dump_with_a_health_cell_of_several_words(self):
        dump = tb.parse_dump(
            "links: 2\n"
            "  name         estimate_kbps  computed_share  installed_share  health\n"
            "  rmnet_data0  1923           0.400           0.402            down rtt=0ms lost=3\n"
            "  wlan0        961            0.600           0.598            -\n"
            "\ncounters since start:\n  evaluation_turns 19\n")
        self.assertEqual(dump["turns"], 19)
        self.assertEqual(dump["links"]["rmnet_data0"]["health"], "down rtt=0ms lost=3")
        line = tb.live_line(dump, 0, ["wlan0", "rmnet_data0", "wlan1"])
        self.assertIn("wlan0          961 kbit/s  share 0.600 (rules 0.598)  -", line)
        self.assertIn("wlan1            - kbit/s  share - (rules -)", line)
        self.assertEqual(tb.parse_dump(""), {"turns": None, "links": {}})


if __name__ == "__main__":
    unittest.main()
