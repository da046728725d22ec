"""Runs the benchmarks and reports what they measured: the small ones of parts of the library, and the comparison with
other messaging libraries.

Who takes part is in contenders.py, what is measured and shown in workloads.py, what we want to be true in aims.py: plain
data, and the places to change. programs.py and rounds.py measure; figures.py, tables.py, plots.py and page.py turn what
was recorded into medians, ratios, tables, pictures and the page in docs/; comparison.py and small.py put these together.
"""
