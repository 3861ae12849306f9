"""The options of archive_bench."""
import argparse


def arguments(description):
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--capsule", metavar="PATH", help="this command instead of building one")
    parser.add_argument("--range-bench", metavar="PATH", help="this range_bench, likewise")
    parser.add_argument("--runs", type=int, default=5, metavar="N", help="rounds (5)")
    parser.add_argument("--scale", type=float, default=1, metavar="F",
                        help="size of the corpora, 1 being the whole")
    parser.add_argument("--corpora", default="text,mixed,tiny", metavar="NAMES",
                        help="which of text,mixed,tiny; may be empty")
    parser.add_argument("--tools", default="", metavar="NAMES",
                        help="only tools whose name begins like one of these, separated by commas")
    parser.add_argument("--single", action="store_true", help="one file of 1.5 GB, too")
    parser.add_argument("--million", action="store_true", help="a million tiny files, too")
    parser.add_argument("--no-extras", action="store_true",
                        help="neither reads of pieces nor system calls")
    parser.add_argument("-j", type=int, dest="jobs", metavar="N",
                        help="give capsule -j N, where it has that option")
    parser.add_argument("--work", metavar="DIR",
                        help="where corpora and archives go, instead of a new folder in memory")
    parser.add_argument("--keep", action="store_true", help="leave the corpora there")
    parser.add_argument("--no-install", action="store_true", help="install no packages")
    parser.add_argument("--json", metavar="FILE", help="write all that was measured there")
    parser.add_argument("--from", dest="earlier", metavar="FILE",
                        help="measure nothing, show what --json has written")
    parser.add_argument("--chart", metavar="FILE", help="draw the times as SVG")
    parser.add_argument("--update", action="store_true",
                        help="put the tables into bench/README.md, and the chart beside it")
    return parser.parse_args()
