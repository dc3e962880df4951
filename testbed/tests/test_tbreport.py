"""The testbed's report tool against fixed log texts, iptables listings and timelines."""
import os
import sys
import unittest
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import tbreport as tb  # noqa: E402

LINKS = ["wlan0", "rmnet_data0"]


def log(ts, msg, prio="D"):
    return "11-22 %s 20361 20361 %s VekStatsImpl: %s" % (ts, prio, msg)


def turn(ts, iface, lre, metered=0):
    return log(ts, " VEK_RATIO : iface=%s, LRE= %d, PktCnt= 12, Max= %d, metered =%d mamaxUnmeteredLRE=0" % (iface, lre, lre, metered))


def timeline(shape_change=False, marks=(6, 4), other_marked=0, extra_mark=0):
    """20 s over links shaped 1000/2000 kbit/s; 10 new connections a second (marked as `marks`), 5 not enrolled."""
    ev = [{"kind": "shape", "link": link, "kbps": kbps, "t": 0.0} for link, kbps in zip(LINKS, (1000, 2000))]
    ev += [{"kind": "ratio", "t": 1.5, "iface": i, "lre": lre, "ratio": r} for i, lre, r in zip(LINKS, (950, 1900), (0.6, 0.4))]
    ev += [{"kind": "mark", "name": "measure", "t": 2.0}, {"kind": "mark", "name": "end", "t": 22.0}]
    ev += [{"kind": "shape", "link": "wlan0", "kbps": 4000, "t": 12.0}] if shape_change else []
    for n, s in enumerate(range(2, 24)):
        ev.append({"kind": "turn", "t": s + 0.1, "est": {"wlan0": 3900 if shape_change and s >= 12 else 950 + (s % 3) * 10,
                                                         "rmnet_data0": 1900}})
        ev.append({"kind": "rules", "t": s, "share": {"wlan0": 0.6, "rmnet_data0": 0.4, "unmarked": 0.0}})
        ev.append({"kind": "counters", "t": s, "mark": {"wlan0": marks[0] * n + extra_mark * s, "rmnet_data0": marks[1] * n},
                   "acct": {"uid10123:all": 10 * n, "uid10124:all": 5 * n, "uid10124:mark:wlan0": min(n, other_marked),
                            "uid10123:out:wlan0": 6 * n, "uid10123:out:rmnet_data0": 4 * n}})
    return sorted(ev, key=lambda e: e["t"])



def summary(ev):
    return tb.summarize(ev, LINKS, {}, "10123", "10124")


class Report(unittest.TestCase):
    def test_turns_rules_and_counters_as_read(self):
        # A turn ends at its closing line or when a link comes again; other lines are no records.
        r = tb.LogReader(2030)
        lines = [log("10:00:00.000", " CALC2 ++ "), turn("10:00:00.001", "rmnet_data0", 1944, 1),
                 turn("10:00:00.002", "wlan0", 967), log("10:00:00.003", "VEK_RATIO wlan0, 967, 0.604375", "E"),
                 log("10:00:00.003", "VEK_RATIO rmnet_data0, 1944, -nan", "E"),
                 log("10:00:00.009", " CALC2 -- "), turn("10:00:01.001", "a", 1), turn("10:00:01.002", "a", 3),
                 "sh: 1: iptables: not found", turn("10:00:02.000", "b", 5).replace(".000", ""), ""]
        events = [e for line in lines for e in r.feed(line)] + r.close()
        turns = [e for e in events if e["kind"] == "turn"]
        self.assertEqual([e["ratio"] for e in events if e["kind"] == "ratio"], [0.604375, 0.0])
        self.assertEqual([t["est"] for t in turns], [{"rmnet_data0": 1944, "wlan0": 967}, {"a": 1}, {"a": 3}])
        self.assertAlmostEqual(turns[2]["t"] - turns[0]["t"], 1.001, places=3)
        self.assertEqual((turns[0]["metered"], turns[2]["share"]), ({"rmnet_data0": 1, "wlan0": 0},
                                                                   {"rmnet_data0": 0.0, "wlan0": 0.604375}))
        rules = tb.parse_probabilities(
            "-A kwop_VEK -p tcp -m statistic --mode random --probability 0.60312499991 -j kwop_fw_wlan0\n"
            "-A kwop_VEK -p tcp --probability 0.5 -j ACCEPT\n"  # not a mark chain
            "-A kwop_VEK -p tcp -m statistic --mode random --probability 0.99999999953 -j kwop_fw_rmnet_data0\n")
        # Each rule sees only what the rules before it left.
        shares = {k: round(v, 6) for k, v in tb.cascade_shares(rules).items()}
        self.assertEqual(shares, {"wlan0": 0.603125, "rmnet_data0": 0.396875, "unmarked": 0.0})
        row = "%7d  %7d %-9s  6    --  *      *       0.0.0.0/0            0.0.0.0/0            %s"
        c = tb.parse_counters("\n".join([
            "== acct", "Chain tb_acct (1 references)", "    pkts      bytes target     prot opt in",
            row % (500, 30000, "", "owner UID match 10123 /* uid10123:all */"),
            row % (7, 420, "", "owner UID match 10124 mark match 0x5b /* uid10124:mark:rmnet_data0 */"),
            "== mark wlan0", row % (301, 18060, "MARK", "MARK set 0x5a"),
            row % (302, 18120, "CONNMARK", "CONNMARK save"), "== mark rmnet_data0"]))
        self.assertEqual(c, {"acct": {"uid10123:all": 500, "uid10124:mark:rmnet_data0": 7}, "mark": {"wlan0": 301}})

    def test_summary_of_one_window_and_its_presentation(self):
        s = summary(timeline())
        seg, = s["segments"]
        self.assertEqual([seg[k] for k in ("app_connections", "other_connections", "other_marked")], [200, 100, 0])
        self.assertEqual([[seg["links"][link][k] for link in LINKS] for k in (
            "connections", "carried_share", "egress_share", "computed_share", "estimated_kbps", "error_pct")],
            [[120, 80], [0.6, 0.4], [0.6, 0.4], [0.6, 0.4], [960, 1900], [-4.0, -5.0]])
        self.assertEqual((tb.check_summary(s, 10, 200), tb.check_rates(s, 20)), ([], []))
        self.assertEqual(tb.check_rates(s, 4.5), ["rmnet_data0: estimate 1900 kbit/s against 2000 shaped (-5.0 %)"])
        self.assertIn("\nwlan0            1000        960   -4.0%      0.60      0.60      0.60     120\n", tb.format_summary(s))

    def test_windows_checks_and_counters(self):
        first, second = summary(timeline(shape_change=True))["segments"]
        self.assertEqual((first["links"]["wlan0"]["shaped_kbps"], second["links"]["wlan0"]["estimated_kbps"],
                          first["app_connections"] + second["app_connections"]), (1000, 3900, 200))
        self.assertEqual(tb.check_summary(summary([e for e in timeline() if e.get("name") != "measure"]), 10, 1),
                         ["no measurement window"])
        self.assertEqual(tb.check_summary(summary(timeline(marks=(9, 1), other_marked=1)), 10, 400), [
            "only 200 new connections of the enrolled UID (need 400)",
            "wlan0: carried share 0.900 vs computed 0.600 (30.0 points apart)",
            "wlan0: 0.900 of the connections marked for it but 0.600 left through it",
            "rmnet_data0: carried share 0.100 vs computed 0.400 (30.0 points apart)",
            "rmnet_data0: 0.100 of the connections marked for it but 0.400 left through it",
            "1 connections of the not-enrolled UID were marked"])
        # Late packets taken for new connections: never fewer connections than marks.
        seg = summary(timeline(extra_mark=1))["segments"][0]
        self.assertEqual((seg["app_unmarked"], seg["app_connections"]), (0, 220))
        idle = summary([e for e in timeline() if e["kind"] != "turn"])
        self.assertEqual(tb.check_rates(idle, 20), ["wlan0: no rate estimate", "rmnet_data0: no rate estimate"])

    def test_picture_and_live_line(self):
        svg = ET.fromstring(tb.render_svg(timeline(shape_change=True), LINKS, title="a <b> & c"))
        self.assertEqual(len(svg.findall("{http://www.w3.org/2000/svg}polyline")), 6)  # shaped, estimate, share
        dump = tb.parse_dump(
            "links: 2\n  name         estimate_kbps  computed_share  installed_share  health\n"
            "  rmnet_data0  1923           0.400           0.402            down rtt=0ms unanswered=3\n"
            "  wlan0        961            0.600           0.598            -\n"
            "\ncounters since start:\n  evaluation_turns 19\n")
        self.assertEqual((dump["turns"], dump["links"]["rmnet_data0"]["health"]), (19, "down rtt=0ms unanswered=3"))
        line = tb.live_line(dump, 0, ["wlan0", "wlan1"])
        self.assertIn("wlan0          961 kbit/s  share 0.600 (rules 0.598)  -  |  wlan1            - kbit/s", line)

