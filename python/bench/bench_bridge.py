#!/usr/bin/python3
"""The python-can bridge under load, beside python-can's own bus.send/recv.

Three emulated actuators (a PythonCanDeviceHost on one endpoint of a python-can
`virtual` channel) stream 4 items at 1 kHz to a PythonCanTransport on another
endpoint, while a Python loop sends each of them a position setpoint every
millisecond. Reported, for classic CAN and CAN-FD:

- delivered: streamed replies the host's callbacks got / replies the devices
  sent, counted once the streams stopped and the channel went quiet
- backlog: frames sent but not yet taken by the host (device frames out minus
  host frames in), first and last second, and its growth
- setpoint seen back: from change_position_setpoint to the first streamed
  reply whose reference item (REF_4B) carries the value, p50 and p99
- CPU per streamed reply: the whole process's CPU time (host, devices and the
  setpoint loop: everything runs here) over the replies delivered, and the
  host's share alone (the threads of the transport: its notifier, its sender
  and the CAN mapping's receive thread, which runs the feedback callbacks)
- idle: the process's CPU share with a transport and a device host (three
  devices) open and nothing on the bus
- python-can's own bus.send and bus.recv of one frame of the same size, and
  what they cost for the frames that cross (both ways, flow control
  included) per streamed reply, as the yardstick

    PYTHONPATH=build/python /usr/bin/python3 python/bench/bench_bridge.py [--seconds N] [--quick]
"""

import argparse
import gc
import os
import statistics
import sys
import threading
import time
import uuid

import can

import ocp_api

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items
ADDRESSES = (0x21, 0x22, 0x23)
STREAMED = [Items.POS_FB_4C, Items.SPD_FB_45, Items.T_FB_49, Items.REF_4B]


def percentile(values, fraction):
    if not values:
        return float("nan")
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def thread_cpu_seconds():
    """CPU seconds of every thread of this process, by native thread id."""
    seconds = {}
    for tid in os.listdir("/proc/self/task"):
        try:
            with open(f"/proc/self/task/{tid}/stat") as stat:
                fields = stat.read().rsplit(")", 1)[1].split()
        except OSError:
            continue  # the thread just ended
        seconds[int(tid)] = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return seconds


def open_channel():
    name = "bench-" + uuid.uuid4().hex
    return lambda: can.Bus(interface="virtual", channel=name, receive_own_messages=False)


def python_can_yardstick(fd, frames=20000):
    """µs per bus.send and per bus.recv of one frame like the bridge's."""
    new_bus = open_channel()
    sender, peer = new_bus(), new_bus()
    length = 64 if fd else 8
    message = can.Message(arbitration_id=0x00D00021, data=bytes(length), is_fd=fd)
    try:
        started = time.perf_counter()
        for _ in range(frames):
            sender.send(message)
        send_us = (time.perf_counter() - started) / frames * 1e6
        started = time.perf_counter()
        for _ in range(frames):
            peer.recv(1.0)
        recv_us = (time.perf_counter() - started) / frames * 1e6
        return send_us, recv_us
    finally:
        sender.shutdown()
        peer.shutdown()


def streaming_run(fd, seconds, setpoint_hz):
    new_bus = open_channel()
    device_bus, host_bus = new_bus(), new_bus()
    # The threads each side starts (its notifier, its sender, the CAN mapping's
    # receive thread): the host's share of the CPU is theirs.
    devices = ocp_api.PythonCanDeviceHost(device_bus, fd=fd)
    threads_with_devices = set(thread_cpu_seconds())
    transport = ocp_api.PythonCanTransport(host_bus, fd=fd)
    host_threads = set(thread_cpu_seconds()) - threads_with_devices
    lock = threading.Lock()
    pending = {}       # (address, float32 setpoint) -> time sent
    latencies = []
    delivered = [0]

    def on_feedback(address, items):
        now = time.perf_counter()
        with lock:
            delivered[0] += 1
            sent = pending.pop((address, items.get(Items.REF_4B)), None)
            if sent is not None:
                latencies.append(now - sent)

    joints = []
    for address in ADDRESSES:
        devices.add_actuator(address)
        joint = Actuator(transport, address)
        if not joint.connect(2.0):
            raise SystemExit(f"no answer from 0x{address:02x}")
        joint.set_feedback_callback(on_feedback)
        joint.setFeedbackItems(STREAMED)
        joint.start()
        joints.append(joint)
    replies_started = devices.counters().replies_out  # the pings' answers are not feedback
    delivered_started = delivered[0]
    for joint in joints:
        joint.setFeedbackRate(1000)

    def frames_in_flight():
        return devices.bridge_counters().frames_sent - transport.bridge_counters().frames_received

    time.sleep(1.0)  # settle
    backlog = []
    step = 0
    cpu_started, wall_started = time.process_time(), time.perf_counter()
    threads_started = thread_cpu_seconds()
    delivered_in_window = delivered[0]
    frames_started = devices.bridge_counters().frames_sent + transport.bridge_counters().frames_sent
    next_second = wall_started + 1.0
    period = 1.0 / setpoint_hz if setpoint_hz else 0.01
    next_tick = wall_started
    while True:
        now = time.perf_counter()
        if now >= wall_started + seconds:
            break
        if now >= next_second:
            backlog.append(frames_in_flight())
            next_second += 1.0
        if setpoint_hz:
            step += 1
            # Values exact in float32 and distinct for the whole run.
            value = (step % 100000) / 1024.0
            for joint in joints:
                with lock:
                    pending[(joint.address, value)] = time.perf_counter()
                joint.change_position_setpoint(value)
        next_tick += period
        pause = next_tick - time.perf_counter()
        if pause > 0:
            time.sleep(pause)
    cpu = time.process_time() - cpu_started
    threads_ended = thread_cpu_seconds()
    host_cpu = sum(threads_ended[t] - threads_started.get(t, 0.0) for t in host_threads if t in threads_ended)
    wall = time.perf_counter() - wall_started
    got = delivered[0] - delivered_in_window
    frames = devices.bridge_counters().frames_sent + transport.bridge_counters().frames_sent - frames_started
    for joint in joints:
        joint.setFeedbackRate(0)
    # Delivered: of the replies sent since streaming started, those that reached a callback
    # once the streams stopped and the channel went quiet.
    quiet_since, last = time.perf_counter(), -1
    while time.perf_counter() - quiet_since < 1.0:
        time.sleep(0.1)
        now = (delivered[0], devices.counters().replies_out)
        if now != last:
            last, quiet_since = now, time.perf_counter()
    sent_total = devices.counters().replies_out - replies_started
    got_total = delivered[0] - delivered_started
    result = {
        "delivered": got_total / max(sent_total, 1),
        "replies": got,
        "backlog_first": backlog[0] if backlog else 0,
        "backlog_last": backlog[-1] if backlog else 0,
        "backlog_max": max(backlog) if backlog else 0,
        "p50_ms": percentile(latencies, 0.50) * 1e3,
        "p99_ms": percentile(latencies, 0.99) * 1e3,
        "cpu_us_per_reply": cpu / max(got, 1) * 1e6,
        "host_us_per_reply": host_cpu / max(got, 1) * 1e6,
        "cpu_share": cpu / wall,
        "setpoints": step * len(joints),
        "frames_per_reply": frames / max(got, 1),
        "drops": transport.bridge_counters().inbox_drops + transport.counters().drops,
    }
    del joints
    gc.collect()
    transport.close()
    devices.close()
    device_bus.shutdown()
    host_bus.shutdown()
    return result


def idle_share(fd, seconds=5.0):
    """The process's CPU share with a transport and a device host open on a
    quiet channel (three devices, nothing streaming)."""
    new_bus = open_channel()
    device_bus, host_bus = new_bus(), new_bus()
    devices = ocp_api.PythonCanDeviceHost(device_bus, fd=fd)
    transport = ocp_api.PythonCanTransport(host_bus, fd=fd)
    for address in ADDRESSES:
        devices.add_actuator(address)
    time.sleep(0.5)
    cpu_started, wall_started = time.process_time(), time.perf_counter()
    time.sleep(seconds)
    share = (time.process_time() - cpu_started) / (time.perf_counter() - wall_started)
    transport.close()
    devices.close()
    device_bus.shutdown()
    host_bus.shutdown()
    return share


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=30.0)
    parser.add_argument("--quick", action="store_true", help="5 s per run")
    parser.add_argument("--setpoint-hz", type=int, default=1000, help="per actuator, in the second run of each")
    args = parser.parse_args(argv)
    seconds = 5.0 if args.quick else args.seconds
    print(f"3 actuators x 4 items at 1 kHz over python-can virtual, {seconds:g} s a run")
    print(f"{'':<8} {'setpoints':>9} {'delivered':>9} {'backlog 1st/last/max':>21} {'p50 ms':>7} {'p99 ms':>7} "
          f"{'CPU us/reply':>12} {'host us':>7} {'frames/reply':>12} {'python-can us':>13} {'CPU':>6} {'idle':>6}")
    for fd in (False, True):
        send_us, recv_us = python_can_yardstick(fd)
        idle = idle_share(fd)
        for setpoint_hz in (0, args.setpoint_hz):
            r = streaming_run(fd, seconds, setpoint_hz)
            backlog = f"{r['backlog_first']}/{r['backlog_last']}/{r['backlog_max']}"
            setpoints = f"{setpoint_hz} Hz" if setpoint_hz else "none"
            # What python-can's own send and recv cost for the frames of one reply.
            yardstick = r["frames_per_reply"] * (send_us + recv_us)
            print(f"{'CAN-FD' if fd else 'classic':<8} {setpoints:>9} {r['delivered'] * 100:8.2f}% {backlog:>21} "
                  f"{r['p50_ms']:7.2f} {r['p99_ms']:7.2f} {r['cpu_us_per_reply']:12.1f} {r['host_us_per_reply']:7.1f} "
                  f"{r['frames_per_reply']:12.2f} {yardstick:13.1f} {r['cpu_share'] * 100:5.1f}% {idle * 100:5.2f}%")
        print(f"{'':<8} python-can's own bus.send {send_us:.2f} us and bus.recv {recv_us:.2f} us per frame")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
