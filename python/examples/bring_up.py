#!/usr/bin/python3
"""Bring-up: find the actuators on a bus, connect to each, read its parameters.

    bring_up.py                      # the simulated bus (emulated actuators)
    bring_up.py socketcan:can0       # a real bus
"""

import sys

import ocp_api

Actuator = ocp_api.OrreryActuator


def main(bus_name="sim", first=0x20, last=0x24):
    try:
        bus = ocp_api.open_bus(bus_name)
    except (OSError, ValueError) as error:
        print(f"{bus_name}: {error}", file=sys.stderr)
        return 2
    scanner = ocp_api.OrreryActuatorScanner(bus)
    found = scanner.scan(first, last)  # prints one "Device found" line each
    del scanner
    for address in found:
        joint = Actuator(bus, address)
        if not joint.connect(1.0):
            print(f"0x{address:02x}: no answer", file=sys.stderr)
            continue
        print(f"\n0x{address:02x} {joint.model_name} firmware {joint.firmware_version}")
        limits = [Actuator.OCP_Parameters.LIMIT_TORQUE, Actuator.OCP_Parameters.LIMIT_SPEED_MAX,
                  Actuator.OCP_Parameters.MODE]
        values = joint.get_parameters(limits)
        for parameter in limits:
            print(f"  {parameter.name:<16} {values.get(parameter, float('nan')):g}")
    return 0 if found else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:2]))
