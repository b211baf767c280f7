#!/usr/bin/env python3
"""Runs a program in a box, from which nothing that it does gets out.

    box.py [--seconds LIMIT] [--memory MIB] [--processes COUNT] [--virtual MIB] PROGRAM [ARGUMENT...]

In the box every file system is read-only, but for empty ones of the box's own at /tmp, /var/tmp, /run and /dev/shm; /dev has what
a program needs and no disk. Processes outside are not seen, the network is a loopback of the box's own, and the rights to boot,
to load modules, to set the clock or to make devices are given up. Process ids are as large as on a machine that runs for a while.
The environment is handed on. Everything ends with the program, or with its limit: of time, of memory that all of it has together
(MIB), of processes and threads. Exit status: the program's, 128 and the number of the signal that ended it, 121 for the time, 122
for memory or processes, 120 when there can be no box here.

Linux, as root or where users may make namespaces.
"""

import argparse
import ctypes
import os
import pathlib
import resource
import signal
import subprocess
import sys
import time

NO_BOX, TIME_OVER, TOO_MUCH = 120, 121, 122
OWN = ("/tmp", "/var/tmp", "/run", "/dev/shm")
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
# Where process ids go on: not those that a system hands out first.
FIRST_ID = 20000
# CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYS_BOOT, CAP_SYS_TIME, CAP_MKNOD, CAP_SYSLOG, CAP_BPF, CAP_PERFMON, CAP_MAC_*.
GIVEN_UP = (16, 17, 22, 25, 27, 32, 33, 34, 38, 39)
MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 1, 2, 4, 8, 32, 4096, 16384, 1 << 18
PR_CAPBSET_DROP, PR_SET_PDEATHSIG = 24, 1
LIBC = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def mount(source, target, kind=None, flags=0, data=None):
    text = [None if part is None else os.fsencode(part) for part in (source, target, kind)]
    check(LIBC.mount(*text, ctypes.c_ulong(flags), data and data.encode()), f"mount of {target}")


def mount_points():
    """Each mount with the flags that a mount in a namespace of less rights has to keep."""
    kept = {"nosuid": MS_NOSUID, "nodev": MS_NODEV, "noexec": MS_NOEXEC, "noatime": 1024, "nodiratime": 2048, "relatime": 1 << 21}
    points = {}
    for line in pathlib.Path("/proc/self/mountinfo").read_text().splitlines():
        fields = line.split(" ")
        target = fields[4].encode().decode("unicode_escape")
        points[target] = sum(kept.get(option, 0) for option in fields[5].split(","))
    return points


def close_off(reachable):
    """Makes this mount namespace the box. `reachable` are folders, open, that stay to be read where they were."""
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    for target, flags in mount_points().items():
        try:
            mount(None, target, flags=MS_REMOUNT | MS_BIND | MS_RDONLY | flags)
        except OSError:
            # What another mount covers cannot be reached either.
            if os.path.ismount(target) and not os.statvfs(target).f_flag & os.ST_RDONLY:
                raise
    devices = {name: os.open(f"/dev/{name}", os.O_PATH) for name in DEVICES if os.path.exists(f"/dev/{name}")}
    mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755")
    for name, descriptor in devices.items():
        pathlib.Path(f"/dev/{name}").touch()
        mount(f"/proc/self/fd/{descriptor}", f"/dev/{name}", flags=MS_BIND)
        os.close(descriptor)
    for folder in ("/dev/pts", "/dev/shm"):
        os.mkdir(folder)
    mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=620")
    for name, target in (("ptmx", "pts/ptmx"), ("fd", "/proc/self/fd"), ("stdin", "/proc/self/fd/0"),
                         ("stdout", "/proc/self/fd/1"), ("stderr", "/proc/self/fd/2")):
        os.symlink(target, f"/dev/{name}")
    for folder in OWN:
        if os.path.isdir(folder) and not os.path.islink(folder):
            mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777,size=1g")
    for path, descriptor in reachable:
        if not os.path.isdir(path):
            os.makedirs(path)
            mount(f"/proc/self/fd/{descriptor}", path, flags=MS_BIND)
            mount(None, path, flags=MS_REMOUNT | MS_BIND | MS_RDONLY)
        os.close(descriptor)
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    try:
        pathlib.Path("/proc/sys/kernel/ns_last_pid").write_text(str(FIRST_ID))
    except OSError:
        # A kernel that does not let them be chosen counts from 1: some are used up, so that at least none is small.
        for _ in range(400):
            child = os.fork()
            if child == 0:
                os._exit(0)
            os.waitpid(child, 0)
    for folder in ("/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus"):
        if os.path.exists(folder):
            mount(folder, folder, flags=MS_BIND | MS_REC)
            mount(None, folder, flags=MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC)


def loopback_up():
    import fcntl
    import socket
    import struct

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sh14x", b"lo", 0x1 | 0x40))  # SIOCSIFFLAGS: up, running


def used():
    """Memory (MiB) and threads of all that is in the box but this process, its first."""
    memory = threads = 0
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or entry == "1":
            continue
        try:
            status = pathlib.Path(f"/proc/{entry}/status").read_text()
        except OSError:
            continue
        fields = dict(line.split(":\t", 1) for line in status.splitlines() if ":\t" in line)
        memory += int(fields.get("VmRSS", "0").split()[0])
        threads += int(fields.get("Threads", "1"))
    files = sum(os.statvfs(folder).f_blocks - os.statvfs(folder).f_bfree for folder in OWN if os.path.ismount(folder))
    return memory // 1024 + files * os.statvfs("/tmp").f_frsize // 1048576, threads


def child(arguments):
    os.setsid()
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if arguments.virtual:
        resource.setrlimit(resource.RLIMIT_AS, (arguments.virtual * 1048576,) * 2)
    for signum in (signal.SIGPIPE, signal.SIGXFSZ):  # Python ignores them
        signal.signal(signum, signal.SIG_DFL)
    for capability in GIVEN_UP:
        LIBC.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)
    os.chdir("/tmp")
    os.environ.update(TMPDIR="/tmp", HOME="/tmp", PWD="/tmp")
    os.execvp(arguments.program[0], arguments.program)


def first_process(arguments):
    """The box's process 1: looks after the limits, and after processes that nobody waits for."""
    reachable = [(path, os.open(path, os.O_PATH)) for path in arguments.reachable]
    close_off(reachable)
    try:
        loopback_up()
    except OSError:
        pass  # programs of the box meet over sockets of files
    program = os.fork()
    if program == 0:
        try:
            child(arguments)
        except OSError as error:
            print(f"{arguments.program[0]}: {error}", file=sys.stderr)
        os._exit(127)
    end = time.monotonic() + arguments.seconds
    pause, look = 0.002, 0.0
    while True:
        try:
            ended, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return NO_BOX
        if ended == program:
            return os.waitstatus_to_exitcode(status) if os.WIFEXITED(status) else 128 + os.WTERMSIG(status)
        if ended != 0:
            continue
        now = time.monotonic()
        if now > end:
            return TIME_OVER
        if now > look:
            memory, threads = used()
            if memory > arguments.memory or threads > arguments.processes:
                print(f"box: {memory} MiB and {threads} threads are too much", file=sys.stderr)
                return TOO_MUCH
            look = now + 0.2
        time.sleep(pause)
        pause = min(pause * 1.5, 0.05)


class Processes:
    """A limit of processes and threads that the kernel keeps. Users have one of their own, root needs a control group."""

    def __init__(self, count):
        self.count, self.group = count, None
        if os.getuid() != 0:
            return
        own = dict(line.split(":", 2)[1:] for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines())
        name = f"tern-box-{os.getpid()}"
        folders = [pathlib.Path("/sys/fs/cgroup/pids" + own.get("pids", "/")), pathlib.Path("/sys/fs/cgroup" + own.get("", "/"))]
        for folder in folders:
            group = folder / name
            try:
                group.mkdir()
                (group / "pids.max").write_text(str(count))
                self.group = group
                return
            except OSError:
                if group.is_dir():
                    group.rmdir()
        print("box: no control group for a limit of processes can be made; they are counted instead", file=sys.stderr)

    def join(self):
        """In the process to be limited, which makes the others."""
        if self.group is not None:
            (self.group / "cgroup.procs").write_text(str(os.getpid()))
        elif os.getuid() != 0:
            resource.setrlimit(resource.RLIMIT_NPROC, (4096, 4096))

    def close(self):
        for _ in range(200):
            try:
                if self.group is not None:
                    self.group.rmdir()
                return
            except OSError:
                time.sleep(0.01)


def run(arguments, command):
    processes = Processes(arguments.processes + 8)
    try:
        namespaces = ["--mount", "--pid", "--net", "--ipc", "--fork", "--kill-child"]
        if os.getuid() != 0:
            namespaces += ["--user", "--map-root-user"]
        inside = [sys.executable, os.path.abspath(__file__), "--inside", *command]
        return subprocess.call(["unshare", *namespaces, *inside], preexec_fn=processes.join)
    finally:
        processes.close()


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].strip())
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--memory", type=int, default=3072)
    parser.add_argument("--processes", type=int, default=1000)
    parser.add_argument("--virtual", type=int, default=0)
    parser.add_argument("--reachable", action="append", default=[], help="a folder that is to be read inside, below /tmp too")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("program", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    if not arguments.program:
        parser.error("no program")
    if not arguments.inside:
        return run(arguments, sys.argv[1:])
    try:
        return first_process(arguments)
    except OSError as error:
        print(f"box: {error}", file=sys.stderr)
        return NO_BOX


if __name__ == "__main__":
    sys.exit(main())
