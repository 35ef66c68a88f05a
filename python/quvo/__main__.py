"""python3 -m quvo [--json] [ID ...] | --health [--json]: prints books, or the feed's health figures, from
quvo-md's shared memory."""

import argparse
import json
import math
import sys

from . import (
    EXCHANGE_LEVELS,
    AttachError,
    QuvoError,
    Reader,
    format_amount,
    health_bucket_low,
    read_health,
    format_price,
    instrument_price_decimals,
    price_decimals,
    round_price,
)


def _table(inst):
    decimals = instrument_price_decimals(inst)
    lines = [
        f"{inst.inst_id}  {inst.exchange}  slot {inst.slot}  change_no {inst.change_no}  "
        f"last {format_price(inst.last_px, decimals)}  volume {inst.volume}  "
        f"open_interest {format_amount(inst.open_interest)}"
    ]
    for level, (bid, ask) in enumerate(zip(inst.bids, inst.asks), 1):
        bid_vol, bid_px = ("", "") if bid == (0.0, 0) else (bid[1], format_price(bid[0], decimals))
        ask_px, ask_vol = ("", "") if ask == (0.0, 0) else (format_price(ask[0], decimals), ask[1])
        local = "  local" if level > EXCHANGE_LEVELS else ""
        lines.append(f"{level:>5}{bid_vol:>9}{bid_px:>13} | {ask_px:<13}{ask_vol:>9}{local}".rstrip())
    return "\n".join(lines)


def _finite(value):
    # JSON has no NaN or infinity; quvo-dump writes null for them too.
    return value if math.isfinite(value) else None


def record(inst):
    """The book as quvo-dump --json gives it: the expected-state file's names,
    prices rounded at the instrument's precision, amounts at their own."""
    decimals = instrument_price_decimals(inst)

    def price(value):
        return _finite(round_price(value, decimals))

    def amount(value):
        return _finite(round_price(value, price_decimals([value])))

    return {
        "id": inst.inst_id,
        "exchange": inst.exchange,
        "slot": inst.slot,
        "inst_no": inst.inst_no,
        "type": inst.type,
        "change_no": inst.change_no,
        "update_time": inst.update_time,
        "update_milli_sec": inst.update_milli_sec,
        "last_px": price(inst.last_px),
        "volume": inst.volume,
        "turnover": amount(inst.turnover),
        "open_interest": amount(inst.open_interest),
        "bid_totvol": inst.bid_totvol,
        "ask_totvol": inst.ask_totvol,
        "bid_totamount": amount(inst.bid_totamount),
        "ask_totamount": amount(inst.ask_totamount),
        "highest_price": price(inst.highest_price),
        "lowest_price": price(inst.lowest_price),
        "bid_px": [price(px) for px, _ in inst.bids],
        "bid_vol": [vol for _, vol in inst.bids],
        "ask_px": [price(px) for px, _ in inst.asks],
        "ask_vol": [vol for _, vol in inst.asks],
    }


def _json(inst):
    return json.dumps(record(inst), separators=(",", ":"), allow_nan=False)


def _health_text(figures):
    """The figures as lines of `name value` pairs, one section a line."""

    def pairs(values):
        return "  ".join(f"{name} {'-' if value is None else value}" for name, value in values.items())

    lines = [
        f"state {figures['state']}  phase {figures['phase']}  run {figures['run']}  pid {figures['pid']}  "
        f"layout_version {figures['layout_version']}",
        f"config_path {figures['config_path']}",
        f"start_ns {figures['start_ns']}",
        "phase_started_ns  " + pairs(figures["phase_started_ns"]),
        "restarts  " + pairs(figures["restarts"]),
    ]
    snapshot = dict(figures["snapshot"])
    feeds = snapshot.pop("feeds")
    cleared = snapshot.pop("cleared")
    lines.append("snapshot  " + pairs(snapshot))
    lines += [f"snapshot {name}  " + pairs(feed) for name, feed in feeds.items()]
    lines.append("snapshot cleared  " + pairs(cleared))
    for section in ("tcp", "records", "cache", "ring"):
        lines.append(f"{section}  " + pairs(figures[section]))
    latency = dict(figures["latency"])
    buckets = latency.pop("buckets")
    lines.append("latency  " + pairs(latency))
    lines += [
        f"latency bucket {i} from {health_bucket_low(i)} ns  {count}" for i, count in enumerate(buckets) if count
    ]
    return "\n".join(lines)


def _print_health(as_json):
    figures = read_health()
    print(json.dumps(figures, separators=(",", ":")) if as_json else _health_text(figures))
    return 0


def _print_books(ids, as_json):
    with Reader() as reader:
        status = 0
        for target in ids or reader.slots():
            try:
                inst = reader.book(target)
            except KeyError:
                print(f"quvo: {target} is not in use", file=sys.stderr)
                status = 1
                continue
            print(_json(inst) if as_json else _table(inst))
        return status


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m quvo", description=__doc__.split(": ", 1)[1])
    parser.add_argument("ids", nargs="*", metavar="ID", help="instrument identifier; none prints every one in use")
    parser.add_argument("--json", action="store_true", help="one JSON object per line, as quvo-dump --json")
    parser.add_argument(
        "--health", action="store_true", help="the feed's health figures instead of books (one line with --json)"
    )
    args = parser.parse_args(argv)
    if args.health and args.ids:
        parser.error("--health takes no instrument identifiers")
    try:
        return _print_health(args.json) if args.health else _print_books(args.ids, args.json)
    except AttachError as error:
        print(f"quvo: {error}", file=sys.stderr)
        return 2
    except QuvoError as error:
        print(f"quvo: {error}", file=sys.stderr)
        return 1

if __name__ == "__main__":
    sys.exit(main())
