"""Rows of the table that all benchmarks share, as bench/table.cpp prints them."""

WIDTHS = (-42, 11, -26, 6, 9, 6, 6)  # of its columns


def print_row(what, figure, beside, ratio, limit, holds):
    """Prints a row; returns whether its limit holds."""
    cells = (what, figure, beside, ratio, limit, "", "" if holds else "MISSED")
    print("|", " | ".join(f"{cell:<{-width}}" if width < 0 else f"{cell:>{width}}"
                          for cell, width in zip(cells, WIDTHS)), "|", flush=True)
    return holds
