"""Puts one benchmark's section into BENCHMARKS.md: between its begin and
end markers when the file has them, at its end otherwise."""
import re


def write_section(path, begin, end, lines):
    try:
        text = open(path).read()
    except FileNotFoundError:
        text = "# Benchmarks\n"
    section = "\n".join([begin] + lines + [end])
    if begin in text and end in text:
        text = re.sub(re.escape(begin) + ".*?" + re.escape(end), lambda _: section, text,
                      flags=re.S)
    else:
        text = text.rstrip("\n") + "\n\n" + section + "\n"
    open(path, "w").write(text)
