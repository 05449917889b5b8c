#!/usr/bin/python3
"""Parses an OpenMetrics text exposition with prometheus_client's parser, an
implementation independent of ours, and prints what it read as one JSON
document: {"families": [{name, type, unit, help}], "samples": [{name,
labels, value}]}. The file must be UTF-8: any other octet fails the read.
Exits 1 with the parser's reason on standard error when it rejects the text.
"""
import json
import sys

from prometheus_client.openmetrics.parser import text_string_to_metric_families


def main(path):
    with open(path, encoding="utf-8", errors="strict") as f:
        text = f.read()
    families = []
    samples = []
    try:
        for family in text_string_to_metric_families(text):
            families.append({"name": family.name, "type": family.type,
                             "unit": family.unit, "help": family.documentation})
            for s in family.samples:
                samples.append({"name": s.name, "labels": s.labels, "value": s.value})
    except ValueError as e:
        print(f"rejected: {e}", file=sys.stderr)
        return 1
    json.dump({"families": families, "samples": samples}, sys.stdout, ensure_ascii=False)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
