"""Holds the device's build, init and policy files against the daemon's code,
so that neither side can change alone."""
import os
import re
import unittest

ANDROID = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TOP = os.path.dirname(ANDROID)
SEPOLICY = os.path.join(ANDROID, "sepolicy")

# Never on a device: the host stand-ins for liblog, libcutils, libbinder and
# the kernel module, and the statistics-file builder of tests and vekstatd.
HOST_ONLY = ("platform/HostLog.cpp", "platform/PropertyStore.cpp", "platform/WriteAll.cpp",
             "platform/binder/", "stats/StatsFileBuilder.cpp", "tools/vekstatd/")
NOT_DAEMON = {"android", "build", "cmake", "fuzz", "samples", "scripts", "testbed", "tests"}


def read(*parts):
    with open(os.path.join(*parts), encoding="utf-8") as f:
        return f.read()


def string_literals(source):
    """The string literals of C++ source, comments skipped."""
    token = r"""("(?:\\.|[^"\\])*")|'(?:\\.|[^'\\])*'|//[^\n]*|/\*.*?\*/"""
    return [m.group(1)[1:-1] for m in re.finditer(token, source, re.S) if m.group(1)]


def blueprint_modules():
    modules = {}
    for kind, body in re.findall(r"^(\w+) \{\n(.*?)^\}", read(ANDROID, "Android.bp"), re.M | re.S):
        name = re.search(r'^    name: "([^"]+)"', body, re.M)
        lists = {key: re.findall(r'"([^"]+)"', items)
                 for key, items in re.findall(r"^    (\w+): \[(.*?)\]", body, re.M | re.S)}
        if name:
            modules[name.group(1)] = (kind, lists)
    return modules


def policy_lines(name):
    return [l.split("#")[0].split() for l in read(SEPOLICY, name).splitlines() if l.split("#")[0].strip()]


class PlatformFilesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.modules = blueprint_modules()
        cls.device_srcs = [s for m in ("libvekd", "vekd", "vekctl") for s in cls.modules[m][1]["srcs"]]
        literals = []
        for src in cls.device_srcs:
            folder = os.path.dirname(src)
            headers = [os.path.join(folder, f) for f in os.listdir(os.path.join(TOP, folder)) if f.endswith(".h")]
            for path in [src] + headers:
                literals += string_literals(read(TOP, path))
        cls.code = "".join(read(TOP, s) for s in cls.device_srcs)
        cls.props = {s for s in literals if re.fullmatch(r"(vendor|persist|ro)\.[\w.-]+", s)}
        cls.paths = {s.split()[0] for s in literals if re.fullmatch(r"/[\w.-]+(/[\w.-]+)+( .*)?", s)}
        cls.paths -= {p for p in cls.paths if p.startswith("/proc/self/")}  # its own descriptors
        cls.te = read(SEPOLICY, "vekd.te")
        cls.rc = read(ANDROID, "vekd.rc")

    def test_properties_match_the_property_contexts_and_the_init_triggers(self):
        self.assertEqual(self.props, {l[0] for l in policy_lines("property_contexts")})
        self.assertTrue(set(re.findall(r"property:([\w.-]+)=", self.rc)) <= self.props)
        # Started on 1; init never stops it (on 2 it takes its own rules down).
        self.assertRegex(self.rc, r"on property:vendor\.vek\.enabled=1\n\s+start vekd\n")
        self.assertNotRegex(self.rc, r"\b(stop|restart) vekd\b")
        for prop_type in {l[1].split(":")[2] for l in policy_lines("property_contexts")}:
            self.assertIn("get_prop(vekd, %s)" % prop_type, self.te)

    def test_every_path_of_the_code_is_covered_and_every_path_named_is_used(self):
        file_contexts = [l[0] for l in policy_lines("file_contexts")]
        genfs = ["/proc" + l[2] for l in policy_lines("genfs_contexts") if l[1] == "proc"]
        binaries = {"/vendor/bin/" + name for name, (kind, _) in self.modules.items() if kind == "cc_binary"}
        data_dirs = re.findall(r"mkdir (\S+) 0?([0-7]{3}) ", self.rc)
        for path in self.paths:
            with self.subTest(path=path):
                if path.startswith("/data/"):
                    self.assertTrue(any(re.fullmatch(fc, path) for fc in file_contexts))
                    self.assertIn(os.path.dirname(path), [d for d, _ in data_dirs])
                elif path.startswith("/proc/"):
                    self.assertTrue(any(path == g or path.startswith(g + "/") for g in genfs))
                elif path.startswith("/system/bin/"):
                    self.assertIn(path, self.te)  # named where the wrappers are allowed
                    self.assertIn("domain_auto_trans(vekd, netutils_wrapper_exec, netutils_wrapper)", self.te)
                elif path == "/dev/vndbinder":
                    self.assertIn("vndbinder_use(vekd)", self.te)
                else:
                    self.fail("no rule of the policy covers " + path)
        for fc in file_contexts:
            self.assertTrue(any(re.fullmatch(fc, p) for p in self.paths | binaries), fc)
        for g in genfs:
            self.assertTrue(any(p == g or p.startswith(g + "/") for p in self.paths), g)
        named = set(re.findall(r"/(?:system|vendor|data|proc|dev)/[\w./-]*\w", self.te + self.rc))
        self.assertEqual(named - self.paths - binaries - {d for d, _ in data_dirs}, set())
        for _, mode in data_dirs:
            self.assertEqual(int(mode, 8) & 0o007, 0, "the data directory is closed to others")

    def test_binder_service_names_match_the_service_contexts(self):
        services = set(re.findall(r'addService\(\s*(?:android::)?String16\("([^"]+)"\)', self.code))
        services |= set(re.findall(r'(?:get|check)Service\(\s*(?:android::)?String16\("([^"]+)"\)', self.code))
        contexts = {l[0]: l[1].split(":")[2] for l in policy_lines("vndservice_contexts")}
        self.assertEqual(services, set(contexts))
        for service_type in contexts.values():
            self.assertIn("add_service(vekd, %s)" % service_type, self.te)

    def test_capabilities_and_sockets_of_the_init_file_and_the_policy_agree(self):
        rc_caps = set(re.search(r"^\s+capabilities (.*)$", self.rc, re.M).group(1).lower().split())
        te_caps = set(re.search(r"allow vekd self:capability \{([^}]*)\}", self.te).group(1).split())
        self.assertEqual(rc_caps, {"net_admin", "net_raw"})
        self.assertEqual(te_caps, rc_caps)
        if "NETLINK_SOCK_DIAG" in self.code:
            self.assertRegex(self.te, r"self:netlink_tcpdiag_socket \{[^}]*nlmsg_read nlmsg_write")
        for socket_class in ("rawip_socket", "icmp_socket"):  # the link monitor's probes
            self.assertIn("allow vekd self:%s" % socket_class, self.te)
        self.assertRegex(self.rc, r"service vekd /vendor/bin/vekd\n")
        self.assertIn("android/vekd.rc", self.modules["vekd"][1]["init_rc"])

    def test_the_device_build_has_every_daemon_source_and_no_host_stand_in(self):
        built = set(self.device_srcs) | set(self.modules["vekd_unit_tests"][1]["srcs"])
        for src in built:
            self.assertTrue(os.path.isfile(os.path.join(TOP, src)), src)
        for src in self.device_srcs:
            self.assertFalse(src.startswith(HOST_ONLY), src)
        for folder, dirs, files in os.walk(TOP):
            rel = os.path.relpath(folder, TOP)
            # build trees (build/, build-*/) hold generated sources of their own
            dirs[:] = [d for d in dirs
                       if not d.startswith((".", "build")) and d not in NOT_DAEMON | {"bench"}]
            for f in files:
                src = os.path.normpath(os.path.join(rel, f))
                if f.endswith(".cpp") and not src.startswith(HOST_ONLY):
                    self.assertIn(src, self.device_srcs, "a daemon source the device build lacks")


if __name__ == "__main__":
    unittest.main()
