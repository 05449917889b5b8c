#!/usr/bin/python3
"""Parses an OpenMetrics text exposition with prometheus_client's parser, an
implementation independent of ours, and prints what it read: a line
"# name type unit" per family (no unit when it has none, " (no help)" when
it has none), then a line "name{label="value",...} value" per sample, labels
in name order and their values as JSON strings. The file must be UTF-8: any
other octet fails the read. Exits 1 with the parser's reason on standard
error when it rejects the text.
"""
import json
import sys

from prometheus_client.openmetrics.parser import text_string_to_metric_families


def main(path):
    with open(path, encoding="utf-8", errors="strict") as f:
        text = f.read()
    lines = []
    try:
        for family in text_string_to_metric_families(text):
            lines.append(f"# {family.name} {family.type}" + (f" {family.unit}" if family.unit else "")
                         + ("" if family.documentation else " (no help)"))
            for s in family.samples:
                labels = ",".join(f"{k}={json.dumps(v, ensure_ascii=False)}"
                                  for k, v in sorted(s.labels.items()))
                lines.append(f"{s.name}{{{labels}}} {s.value:g}")
    except ValueError as e:
        print(f"rejected: {e}", file=sys.stderr)
        return 1
    sys.stdout.write("".join(line + "\n" for line in lines))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
