"""Where and of what a run was made."""
import os
import platform
import re
import subprocess


def _read(path, otherwise=""):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read().strip()
    except OSError:
        return otherwise


def _run(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def describe():
    processor = re.search(r"^model name\s*:\s*(.*)$", _read("/proc/cpuinfo"), re.M)
    governors = {_read(f"/sys/devices/system/cpu/cpu{core}/cpufreq/scaling_governor", "none: the kernel does not set it")
                 for core in os.sched_getaffinity(0)}
    return {
        "commit": _run("git", "describe", "--always", "--dirty", "--abbrev=12"),
        "processor": processor[1] if processor else platform.machine(),
        "cores": len(os.sched_getaffinity(0)),
        "virtual": _run("systemd-detect-virt", "--vm") or "no virtual machine",
        "kernel": f"{platform.release()} {platform.version()}",
        "governor": ", ".join(sorted(governors)),
        "idle_driver": _read("/sys/devices/system/cpu/cpuidle/current_driver", "none"),
        "realtime_runtime_us": _read("/proc/sys/kernel/sched_rt_runtime_us"),
        "memory_kb": int(re.search(r"MemTotal:\s+(\d+)", _read("/proc/meminfo"))[1]),
        "pipe_user_pages_soft": _read("/proc/sys/fs/pipe-user-pages-soft"),
        "load_before": os.getloadavg(),
    }
