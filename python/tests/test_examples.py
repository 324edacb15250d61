"""The examples run and print what the README shows."""

import csv
import os
import pathlib
import subprocess
import sys

EXAMPLES = pathlib.Path(__file__).resolve().parent.parent / "examples"


def run(name, *args):
    return subprocess.run([sys.executable, str(EXAMPLES / name), *args], capture_output=True, text=True,
                          timeout=120, env=dict(os.environ))


def test_bring_up_scans_connects_and_reads_parameters():
    result = run("bring_up.py")
    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    block = "  LIMIT_TORQUE     10\n  LIMIT_SPEED_MAX  50\n  MODE             6\n"
    assert result.stdout == (
        "Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
        "Device found: address 0x22 (34)\tmodel KESTREL_B\tfirmware 1.4.3\n"
        "Device found: address 0x23 (35)\tmodel HERON_C\tfirmware 2.0.1\n"
        "\n0x21 HERON_A firmware 1.1.2\n" + block +
        "\n0x22 KESTREL_B firmware 1.4.3\n" + block +
        "\n0x23 HERON_C firmware 2.0.1\n" + block)


def test_bring_up_on_a_missing_interface_fails_with_a_message():
    result = run("bring_up.py", "socketcan:ocpnosuch0")
    assert result.returncode == 2
    assert result.stdout == ""
    assert result.stderr.startswith("socketcan:ocpnosuch0: [Errno ")
    assert "CAN interface ocpnosuch0" in result.stderr
    assert "Traceback" not in result.stderr


def test_position_move_writes_one_csv_row_per_reply(tmp_path):
    output = tmp_path / "move.csv"
    result = run("position_move_csv.py", str(output))
    assert result.returncode == 0, result.stderr
    rows = list(csv.reader(output.open()))
    assert rows[0] == ["time_s", "POS_FB_4C", "SPD_FB_45", "T_FB_49"]
    assert result.stderr == f"{len(rows) - 1} rows\n"
    assert len(rows) > 100, "200 Hz for about two seconds"
    positions = [float(row[1]) for row in rows[1:]]
    assert max(positions) > 0.95
    assert abs(positions[-1]) < 0.05


def test_simulated_trajectory_is_deterministic():
    result = run("simulated_trajectory.py")
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines[0] == "time_s  target    position  speed     torque"
    assert len(lines) == 21
    assert lines[10] == " 0.500    1.0000    0.9551    0.8994    0.0899"
    assert lines[-1] == " 1.000    1.0000    1.0000    0.0003   -0.3000"


def test_benchmark_runs_and_reports_every_path():
    bench = EXAMPLES.parent / "bench" / "bench_bindings.py"
    result = subprocess.run([sys.executable, str(bench), "--quick"], capture_output=True, text=True, timeout=300,
                            env=dict(os.environ))
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines[0].split() == ["path", "us/call", "vs", "bus.send"]
    assert len(lines) == 7
    assert lines[1].endswith(" 1.00x")


def test_aio_move_finds_reads_moves_and_raises_on_silence():
    result = run("aio_move.py")
    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    limits = "limits {'LIMIT_TORQUE': 10.0, 'LIMIT_SPEED_MAX': 50.0}\n"
    assert result.stdout == (
        "<aio.Actuator address=0x21 model='HERON_A' firmware='1.1.2' connected mode=SPEED>\n"
        "<aio.Actuator address=0x22 model='KESTREL_B' firmware='1.4.3' connected mode=SPEED>\n"
        "<aio.Actuator address=0x23 model='HERON_C' firmware='2.0.1' connected mode=SPEED>\n"
        "0x21 " + limits + "0x22 " + limits + "0x23 " + limits +
        "0x21 at 0.25 rad\n0x22 at 0.50 rad\n0x23 at 0.75 rad\n"
        "OcpTimeoutError: address 0x30: no answer to a ping within 0.1 s\n")


def test_aio_group_runs_the_loop_and_reports_every_joint():
    result = run("aio_group.py")
    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    lines = result.stdout.splitlines()
    assert lines[0] == "no feedback within 0.5 s from 0x30"
    summary, *joints = lines[1:]
    if summary.startswith("watchdog: "):
        # A machine loaded enough to stall the loop 20 periods: the watchdog
        # stopped the joints, as it should; the counts below assume a full run.
        return
    assert summary.startswith("duration_elapsed: ") and " periods, " in summary
    periods = int(summary.split()[1])
    assert [line.split()[0] for line in joints] == ["0x21", "0x22", "0x23", "0x30"]
    for line in joints[:3]:
        words = line.split()
        assert words[1] in ("fresh", "stale")  # stale only on a machine loaded enough to delay the bus
        fresh, stale, missing = int(words[5]), int(words[7]), int(words[9])
        assert fresh + stale + missing == periods and fresh > 0
        # A setpoint in every period the joint's feedback was there: the first
        # one full (it carries the gains), the others short.
        assert words[10:13] == ["setpoints", "1", "full"] and 1 + int(words[13]) == fresh + stale
    assert joints[3].split()[1] == "missing"
    assert joints[3].split()[3:11] == ["+nan", "fresh", "0", "stale", "0", "missing", str(periods), "setpoints"]
