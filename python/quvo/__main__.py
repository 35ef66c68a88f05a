"""python3 -m quvo [--json] [ID ...]: prints books from quvo-md's shared memory."""

import argparse
import json
import sys

from . import EXCHANGE_LEVELS, AttachError, QuvoError, Reader


def _table(inst):
    lines = [
        f"{inst.inst_id}  {inst.exchange}  slot {inst.slot}  change_no {inst.change_no}  "
        f"last {inst.last_px:g}  volume {inst.volume}  open_interest {inst.open_interest:g}"
    ]
    for level, (bid, ask) in enumerate(zip(inst.bids, inst.asks), 1):
        bid_vol, bid_px = ("", "") if bid == (0.0, 0) else (bid[1], f"{bid[0]:g}")
        ask_px, ask_vol = ("", "") if ask == (0.0, 0) else (f"{ask[0]:g}", ask[1])
        local = "  local" if level > EXCHANGE_LEVELS else ""
        lines.append(f"{level:>5}{bid_vol:>9}{bid_px:>13} | {ask_px:<13}{ask_vol:>9}{local}".rstrip())
    return "\n".join(lines)


def _json(inst):
    record = {name: getattr(inst, name) for name in inst.__dataclass_fields__ if name not in ("bids", "asks")}
    record["bids"] = [list(level) for level in inst.bids]
    record["asks"] = [list(level) for level in inst.asks]
    return json.dumps(record)


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m quvo", description=__doc__.split(": ", 1)[1])
    parser.add_argument("ids", nargs="*", metavar="ID", help="instrument identifier; none prints every one in use")
    parser.add_argument("--json", action="store_true", help="one JSON object per line")
    args = parser.parse_args(argv)
    try:
        with Reader() as reader:
            targets = args.ids or reader.slots()
            status = 0
            for target in targets:
                try:
                    inst = reader.book(target)
                except KeyError:
                    print(f"quvo: {target} is not in use", file=sys.stderr)
                    status = 1
                    continue
                print(_json(inst) if args.json else _table(inst))
            return status
    except AttachError as error:
        print(f"quvo: {error}", file=sys.stderr)
        return 2
    except QuvoError as error:
        print(f"quvo: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
