"""Price text at the precision a tick gives.

The shared record carries no tick size, so the precision is recovered from
the prices themselves: the fewest decimals, at most MAX_PRICE_DECIMALS, that
reproduce every nonzero finite value to within the error tick arithmetic in
doubles leaves behind. quvo-dump does exactly the same, so a book reads alike
from both.
"""

import math

MAX_PRICE_DECIMALS = 8


def _fits_decimals(value: float, decimals: int) -> bool:
    # A whole number of units of the last decimal, within 1e-11 relatively:
    # more than tick arithmetic and long sums leave, far below a real digit.
    scaled = value * 10.0**decimals
    return abs(scaled - round(scaled)) <= 1e-11 * max(1.0, abs(scaled))


def price_decimals(values) -> int:
    """The fewest decimals that reproduce every nonzero finite value, or -1
    when MAX_PRICE_DECIMALS are not enough."""
    values = list(values)
    for decimals in range(MAX_PRICE_DECIMALS + 1):
        if all(value == 0.0 or not math.isfinite(value) or _fits_decimals(value, decimals) for value in values):
            return decimals
    return -1


def instrument_price_decimals(inst) -> int:
    """price_decimals over an Instrument's last, high, low and every level's price."""
    prices = [inst.last_px, inst.highest_price, inst.lowest_price]
    prices += [price for price, _ in inst.bids]
    prices += [price for price, _ in inst.asks]
    return price_decimals(prices)


def format_price(value: float, decimals: int) -> str:
    """`value` at `decimals` places ("576.2", not "576.20000000000005"), never
    "-0"; -1 gives the shortest text that reads back as the same float."""
    if decimals < 0 or not math.isfinite(value):
        return repr(value)
    text = f"{value:.{decimals}f}"
    return text[1:] if text == f"{-0.0:.{decimals}f}" else text


def round_price(value: float, decimals: int) -> float:
    """`value` rounded to `decimals` places: the float nearest that decimal, so
    that its shortest text is the decimal itself. -1 leaves it as it is."""
    if decimals < 0 or not math.isfinite(value):
        return value
    return float(f"{value:.{decimals}f}")


def format_amount(value: float) -> str:
    """A single amount (turnover, totals, open interest) at its own precision."""
    return format_price(value, price_decimals([value]))
