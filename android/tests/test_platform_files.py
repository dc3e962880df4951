"""The device's build, init and policy files against the daemon's code: neither side can change alone."""
import os
import pathlib
import re
import unittest

ANDROID = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TOP = os.path.dirname(ANDROID)
# Never on a device: host stand-ins (liblog, libcutils, libbinder, kernel module) and the statistics-file builder.
HOST_ONLY = ("platform/HostLog.cpp", "platform/PropertyStore.cpp", "platform/WriteAll.cpp",
             "platform/binder/", "stats/StatsFileBuilder.cpp", "tools/vekstatd/")
NOT_DAEMON = {"android", "bench", "build", "cmake", "fuzz", "samples", "scripts", "testbed", "tests"}
read = lambda *parts: pathlib.Path(*parts).read_text(encoding="utf-8")  # noqa: E731
policy = lambda name: [l.split() for l in re.findall(r"^[^#\n]*[^#\s]", read(ANDROID, "sepolicy", name), re.M)]  # noqa: E731


class PlatformFilesTest(unittest.TestCase):
    def test_policy_init_and_build_files_match_the_code(self):
        modules = {re.search(r'^    name: "([^"]+)"', body, re.M).group(1): (kind, {  # name: (kind, {key: [items]})
            key: re.findall(r'"([^"]+)"', items) for key, items in re.findall(r"^    (\w+): \[(.*?)\]", body, re.M | re.S)})
            for kind, body in re.findall(r"^(\w+) \{\n(.*?)^\}", read(ANDROID, "Android.bp"), re.M | re.S)}
        srcs = [s for m in ("libvekd", "vekd", "vekctl") for s in modules[m][1]["srcs"]]
        code = "".join(read(TOP, s) for s in srcs)
        headers = {os.path.join(os.path.dirname(s), f) for s in srcs for f in os.listdir(os.path.join(TOP, os.path.dirname(s)))
                   if f.endswith(".h")}
        token = r"""("(?:\\.|[^"\\])*")|'(?:\\.|[^'\\])*'|//[^\n]*|/\*.*?\*/"""  # string literals, comments skipped
        literals = [m.group(1)[1:-1] for p in srcs + sorted(headers) for m in re.finditer(token, read(TOP, p), re.S) if m.group(1)]
        props = {s for s in literals if re.fullmatch(r"(vendor|persist|ro)\.[\w.-]+", s)}
        paths = {s.split()[0] for s in literals if re.fullmatch(r"/[\w.-]+(/[\w.-]+)+( .*)?", s)
                 and not s.startswith("/proc/self/")}  # its own descriptors
        te, rc = read(ANDROID, "sepolicy", "vekd.te"), read(ANDROID, "vekd.rc")
        services = set(re.findall(r'(?:add|get|check)Service\(\s*(?:android::)?String16\("([^"]+)"\)', code))
        file_contexts = [l[0] for l in policy("file_contexts")]
        genfs = ["/proc" + l[2] for l in policy("genfs_contexts") if l[1] == "proc"]
        binaries = {"/vendor/bin/" + name for name, (kind, _) in modules.items() if kind == "cc_binary"}
        data_dirs = dict(re.findall(r"mkdir (\S+) 0?([0-7]{3}) ", rc))
        caps = set(re.search(r"^\s+capabilities (.*)$", rc, re.M).group(1).lower().split())
        must = [  # (what, it holds)
            ("properties: the code's are those of property_contexts", props == {l[0] for l in policy("property_contexts")}),
            ("init starts vekd on 1, never stops it (on 2 it takes its own rules down)",
             re.search(r"on property:vendor\.vek\.enabled=1\n\s+start vekd\n", rc) and not re.search(r"\b(stop|restart) vekd\b", rc)),
            ("services: the code's are those of vndservice_contexts", services == {l[0] for l in policy("vndservice_contexts")}),
            ("every path the policy and init name is known", set(re.findall(r"/(?:system|vendor|data|proc|dev)/[\w./-]*\w", te + rc))
             <= paths | binaries | set(data_dirs)),
            ("the data directories are closed to others", all(int(mode, 8) & 0o007 == 0 for mode in data_dirs.values())),
            ("capabilities of init and policy are net_admin and net_raw", caps == {"net_admin", "net_raw"} == set(
                re.search(r"allow vekd self:capability \{([^}]*)\}", te).group(1).split())),
            ("the sock-diag socket", re.search(r"allow vekd self:netlink_tcpdiag_socket \{[^}]*nlmsg_read nlmsg_write", te)),
            ("init runs the installed binary from the module", re.search(r"service vekd /vendor/bin/vekd\n", rc)
             and "android/vekd.rc" in modules["vekd"][1]["init_rc"]),
            ("the device build has no host stand-in", not [s for s in srcs if s.startswith(HOST_ONLY)]),
        ]
        must += [("allowed: " + rule, rule in te) for rule in ["allow vekd self:rawip_socket", "allow vekd self:icmp_socket"]
                 + ["get_prop(vekd, %s)" % l[1].split(":")[2] for l in policy("property_contexts")]
                 + ["add_service(vekd, %s)" % l[1].split(":")[2] for l in policy("vndservice_contexts")]]
        kinds = {  # each path of the code under the rule for its kind
            "/data/": lambda p: any(re.fullmatch(fc, p) for fc in file_contexts) and os.path.dirname(p) in data_dirs,
            "/proc/": lambda p: any(p == g or p.startswith(g + "/") for g in genfs),
            "/system/bin/": lambda p: p in te and "domain_auto_trans(vekd, netutils_wrapper_exec, netutils_wrapper)" in te,
            "/dev/vndbinder": lambda p: "vndbinder_use(vekd)" in te}
        must += [(path, any(path.startswith(kind) and covered(path) for kind, covered in kinds.items())) for path in paths]
        must += [("built and present: " + s, os.path.isfile(os.path.join(TOP, s))) for s in modules["vekd_unit_tests"][1]["srcs"]]
        for folder, dirs, files in os.walk(TOP):
            dirs[:] = [d for d in dirs if not d.startswith((".", "build")) and d not in NOT_DAEMON]  # build trees too
            cpps = [os.path.relpath(os.path.join(folder, f), TOP) for f in files if f.endswith(".cpp")]
            must += [("a daemon source the device build lacks: " + s, s in srcs) for s in cpps if not s.startswith(HOST_ONLY)]
        self.assertEqual([what for what, holds in must if not holds], [])

