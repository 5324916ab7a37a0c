# SPDX-License-Identifier: Apache-2.0
"""A copy of the sources with a build of its own, in which faults are tried one by one."""
import os
import re
import resource
import shutil
import subprocess

# Compiling stays behind whatever else the machine does. The suites don't: they wait most of the time, and one that
# is starved would seem to notice a fault.
BEHIND = ["chrt", "--idle", "0", "nice", "-n", "19"]
FLAGS = "-O0 -g0 -w -D_GLIBCXX_ASSERTIONS"
# Nothing that a faulty program does is to be seen outside: its own processes, network, /tmp, and sources that can't
# be written.
APART = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc", "bash", "-c",
         'mount --bind "$0" "$0" && mount -o remount,bind,ro "$0" && mount -t tmpfs -o size=2g tmpfs /tmp &&'
         'ip link set lo up && cd /tmp && exec "$@"']
MEMORY = 16 << 30


class Tree:
    def __init__(self, root, folder, cache):
        self.root, self.folder = root, folder
        self.source, self.build = f"{folder}/source", f"{folder}/build"
        self.environment = {**os.environ, "CCACHE_DIR": cache, "CCACHE_NOHASHDIR": "1",
                            "CCACHE_BASEDIR": folder, "HOME": "/tmp", "TMPDIR": "/tmp",
                            # Else every suite would look at all plugins anew, in a /tmp that is empty.
                            "GST_REGISTRY": f"{cache}.registry", "GST_REGISTRY_UPDATE": "no"}

    def set_up(self, targets):
        os.makedirs(self.source, exist_ok=True)
        files = subprocess.run(["git", "ls-files", "-z"], cwd=self.root, check=True, capture_output=True).stdout
        for name in files.decode().split("\0"):
            if os.path.isfile(f"{self.root}/{name}"):
                os.makedirs(os.path.dirname(f"{self.source}/{name}"), exist_ok=True)
                shutil.copy(f"{self.root}/{name}", f"{self.source}/{name}")
        subprocess.run(["gst-inspect-1.0", "--exists", "x264enc"], check=False,
                       env={**self.environment, "GST_REGISTRY_UPDATE": "yes"})
        linker = "-fuse-ld=lld"
        subprocess.run(BEHIND + ["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                        f"-DCMAKE_CXX_FLAGS_DEBUG={FLAGS}", "-DZELTA_BUILD_TESTS=ON",
                        "-DCMAKE_DISABLE_FIND_PACKAGE_Git=ON", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache",
                        f"-DCMAKE_EXE_LINKER_FLAGS={linker}", f"-DCMAKE_SHARED_LINKER_FLAGS={linker}"],
                       check=True, capture_output=True, env=self.environment)
        if not self.make(targets):
            raise SystemExit(f"the sources don't build: see ninja -C {self.build}")

    def make(self, targets):
        done = subprocess.run(BEHIND + ["ninja", "-C", self.build, "-j2"] + targets, capture_output=True,
                              env={**self.environment, "TMPDIR": self.folder}, check=False)
        return done.returncode == 0

    def write(self, path, text):
        with open(f"{self.source}/{path}", "w", encoding="utf-8") as file:
            file.write(text)

    def run(self, suite):
        """None when it passes, else what failed first."""
        for said in self._run(suite, suite.filter, suite.shards):
            case = re.search(r"\[  FAILED  \] ([\w./]+)|(?m:^)(?:FAIL|ERROR): (\w+) \(__main__\.", said)
            name = case and (case[1] or "ToolTest." + case[2])
            if name is None or "/" in name:
                return name or said[-80:]
            # Once more: a machine that had no time to spare is no proof. What another shard has seen may be one.
            if self._run(suite, name, 1):
                return name
        return None

    def _run(self, suite, cases, shards):
        def limits():
            resource.setrlimit(resource.RLIMIT_CPU, (suite.cpu_seconds, suite.cpu_seconds))
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

        name = f"{self.build}/bin/{suite.name}"
        command = APART + [self.root, "timeout", "-s", "KILL", str(suite.wall_seconds), name, "--gtest_fail_fast",
                           "--gtest_brief=1", f"--gtest_filter={cases}"]
        if suite.name.startswith("fuzz_"):
            command = command[:-3]
        if suite.script:
            command[-4:] = ["python3", "-B", f"{self.source}/{suite.script}", "-f"] + [cases] * (cases != "*")
        running = [subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, preexec_fn=limits,
                                    env={**self.environment, "GTEST_TOTAL_SHARDS": str(shards),
                                         "GTEST_SHARD_INDEX": str(index), "ZELTA_BIN": f"{self.build}/bin"})
                   for index in range(shards)]
        failures = []
        for process in running:
            said = process.communicate()[0].decode(errors="replace")
            if process.returncode != 0:
                failures.append(said + ("(timeout)" if process.returncode in (124, 137) else f"(status {process.returncode})"))
        return failures
