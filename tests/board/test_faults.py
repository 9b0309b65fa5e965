"""What goes wrong on a board around the service: killed, stopped, no memory, nowhere to write, a
clock that jumps."""

import bench
import pytest


def time_away(machine):
    """How long the service was away the last time, by the board's own clock, in seconds: two of
    them are the supervisor's pause."""
    said = machine.run("systemctl show -p InactiveEnterTimestampMonotonic,"
                       "ActiveEnterTimestampMonotonic nimbus.service")
    found = {name: int(value) / 1e6 for name, value in (line.split("=") for line in said.split())}
    return (found["ActiveEnterTimestampMonotonic"] - found["InactiveEnterTimestampMonotonic"])


def test_killed(machine, viewer, times, figures):
    took = []
    for _ in range(times(5, 300)):
        before = bench.service_pid(machine)
        machine.run(f"kill -9 {before}")
        bench.wait_restarted(machine, before)
        took.append(time_away(machine))
    median = sorted(took)[len(took) // 2]
    figures["killed"] = {"times": len(took), "back in s": round(median, 1),
                         "longest, s": round(max(took), 1)}
    assert viewer.join().settings()["vbitrate"] == 1111


@pytest.mark.long
def test_stopped(machine, viewer, figures):
    """SIGSTOP: the watchdog ends it, and it starts again."""
    machine.run("folder=/run/systemd/system/nimbus.service.d; mkdir -p $folder;"
                " printf '[Service]\\nWatchdogSec=4\\n' >$folder/watchdog.conf;"
                " systemctl daemon-reload; systemctl restart nimbus", 60)
    bench.wait_service(machine)
    before = bench.service_pid(machine)
    machine.run(f"kill -STOP {before}")
    bench.wait_restarted(machine, before)
    figures["stopped, back in s"] = round(time_away(machine), 1)
    assert "Watchdog timeout" in bench.journal(machine)
    assert viewer.join().settings()["vbitrate"] == 1111


@pytest.mark.long
def test_out_of_memory(machine, viewer):
    """The greedy one is ended, not the service."""
    viewer.join()
    before = bench.service_pid(machine)
    machine.ask("systemd-run --wait -q -p OOMScoreAdjust=500 perl -e "
                "'my @a; while (1) { push @a, \"x\" x 10_000_000 }'", 200)
    assert "out of memory: killed process" in machine.run("journalctl -k -b -o cat").lower()
    assert bench.service_pid(machine) == before
    assert viewer.join().settings()["vbitrate"] == 1111


@pytest.mark.long
def test_out_of_memory_hits_the_service(machine, viewer):
    before = bench.service_pid(machine)
    machine.run(f"echo 1000 >/proc/{before}/oom_score_adj; echo f >/proc/sysrq-trigger")
    bench.wait_restarted(machine, before)
    assert "oom" in bench.journal(machine).lower()
    assert viewer.join().settings()["vbitrate"] == 1111


@pytest.mark.long
def test_full_run(machine, viewer):
    """Nothing can be written in /run: the next start has settings all the same, and when there is
    room again, those of the card."""
    machine.run("dd if=/dev/zero of=/run/filler bs=64k 2>/dev/null;"
                " dd if=/dev/zero of=/run/filler2 bs=512 2>/dev/null; true", 120)
    before = bench.service_pid(machine)
    viewer.join().command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /boot/firmware/tervado-nimbus.conf && sleep 1")
    machine.run(f"kill -9 {before}")
    bench.wait_restarted(machine, before)
    assert viewer.join().settings()["vbitrate"] in (1111, 2222)
    machine.run("rm /run/filler*; systemctl restart nimbus", 60)
    assert viewer.join().settings()["vbitrate"] == 2222


@pytest.mark.long
def test_full_root(machine, viewer):
    """And with it the journal."""
    machine.run("dd if=/dev/zero of=/filler bs=1M 2>/dev/null; journalctl --flush; "
                "dd if=/dev/zero of=/filler2 bs=4k 2>/dev/null; true", 300)
    assert machine.run("df --output=avail / | tail -n 1").strip() == "0"
    before = bench.service_pid(machine)
    viewer.join().command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /run/tervado.conf")
    machine.run(f"kill -9 {before}")
    bench.wait_restarted(machine, before)
    assert viewer.join().settings()["vbitrate"] == 2222


# --- Time ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("begin", ["2037-12-31"])
def test_clock_set_while_everybody_is_connected(machine, viewers, begin):
    """Whoever is lost by it is back with his next registration, and nothing hangs."""
    everybody = [viewers(host) for host in range(9)]
    for viewer in everybody:
        viewer.join().keep_alive()
    before = bench.service_pid(machine)
    for jump in (f"'{begin}'", "@$(($(date +%s) + 3600))", "@$(($(date +%s) - 3600))",
                 "'2026-11-21 12:00:00'"):
        machine.run(f"date -s {jump}")
        starts = [len(viewer.frames) for viewer in everybody]
        for viewer, start in zip(everybody, starts):
            viewer.wait(lambda frame: frame.payload[:1] == b"\x0b", 20, "the status", start + 5)
    everybody[0].command(bench.setting("video_bitrate", 2222))
    machine.wait("grep -q video_bitrate=2222 /run/tervado.conf")
    assert bench.service_pid(machine) == before
