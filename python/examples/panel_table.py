#!/usr/bin/env python3
"""Reads every panel's state at once and prints one table row per panel.

    panel_table.py --device 127.0.0.1:5000 --device 10.0.0.7:5000/3
    panel_table.py --mqtt 127.0.0.1:1883 --fleet lobby --address 1 --address 2
    panel_table.py --tls-cert station.crt --tls-key station.key --tls-ca ca.crt --device 10.0.0.7:5000/3

A device is HOST:PORT or HOST:PORT/ADDRESS (address 1 when left out). With the TLS options every
link is mutual TLS 1.3, and each panel's certificate must name its address. A panel that cannot
be read gets a row with its error; the exit status is then 1.
"""
import argparse
import asyncio
import sys

import nkprotocol as nk

COLUMNS = ("device", "address", "name", "serial", "config", "schedules", "images", "firmware", "status")


def endpoint(text):
    where, _, address = text.partition("/")
    host, _, port = where.rpartition(":")
    if not host or not port.isdigit() or (address and not address.isdigit()):
        raise argparse.ArgumentTypeError(f"{text!r} is not HOST:PORT or HOST:PORT/ADDRESS")
    return host, int(port), int(address or 1)


async def read_one(label, address, connect, timeout):
    try:
        station = await connect()
        try:
            state = await station.state()
        finally:
            await station.close()
    except Exception as e:  # one panel's failure is its row, not the end of the table
        return [label, str(address), "", "", "", "", "", "", f"error: {e}"]
    images = state.to_dict().get("images", [])
    return [label, str(address), state.devName, str(state.serial), state.csCfg[:12] or "-",
            state.csSched[:12] or "-", str(len(images)), state.vc or "-", "ok"]


async def read_all(args):
    jobs = []
    for host, port, address in args.device:
        connect = (lambda h=host, p=port, a=address:
                   nk.Station.tcp(h, p, address=a, tls=args.tls, timeout=args.timeout))
        jobs.append(read_one(f"{host}:{port}", address, connect, args.timeout))
    if args.mqtt:
        host, port, _ = endpoint(args.mqtt)
        for address in args.address:
            connect = (lambda a=address:
                       nk.Station.mqtt(host, port, args.fleet, a, prefix=args.prefix, tls=args.tls,
                                       timeout=args.timeout))
            jobs.append(read_one(f"mqtt:{args.fleet}", address, connect, args.timeout))
    return await asyncio.gather(*jobs)


def print_table(rows):
    widths = [max(len(r[i]) for r in [COLUMNS, *rows]) for i in range(len(COLUMNS))]
    for row in [COLUMNS, *rows]:
        print("  ".join(cell.ljust(w) for cell, w in zip(row, widths)).rstrip())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--device", type=endpoint, action="append", default=[], help="HOST:PORT[/ADDRESS]")
    parser.add_argument("--mqtt", help="the broker, HOST:PORT")
    parser.add_argument("--fleet", default="default", help="the fleet's topic level")
    parser.add_argument("--prefix", default="nk", help="the topic prefix")
    parser.add_argument("--address", type=int, action="append", default=[], help="a panel's address (MQTT)")
    parser.add_argument("--timeout", type=float, default=10.0, help="seconds to wait for each panel")
    parser.add_argument("--tls-cert", help="the station's certificate (PEM): every link on mutual TLS")
    parser.add_argument("--tls-key", help="its private key (PEM)")
    parser.add_argument("--tls-ca", help="the CA that panels' and the broker's certificates chain to")
    parser.add_argument("--tls-crl", help="the CA's revocation list")
    args = parser.parse_args()
    if not args.device and not (args.mqtt and args.address):
        parser.error("name at least one --device, or --mqtt with --address")
    given = [args.tls_cert, args.tls_key, args.tls_ca]
    if any(given) and not all(given):
        parser.error("TLS needs --tls-cert, --tls-key and --tls-ca together")
    args.tls = nk.StationTls(args.tls_cert, args.tls_key, args.tls_ca, args.tls_crl) if all(given) else None
    if args.tls:
        try:
            args.tls.context()
        except ValueError as e:
            parser.error(str(e))
    rows = asyncio.run(read_all(args))
    print_table(rows)
    return 1 if any(r[-1] != "ok" for r in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
