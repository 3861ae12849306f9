"""The parts of bench/archive_bench."""
