#!/usr/bin/env python3
"""Runs one depottrie session file and compares the transcript.

A session is a transcript: `$ depottrie ARGS` runs the tool (shell words;
@ROOT@ is a fresh depot root, @DIR@ a scratch directory, @DATA@ the sample
tables), `< text` lines are its standard input, `! text` lines its expected
standard error, `[exit N]` its expected status (0 when absent), and every
other line its expected standard output. `#` lines are comments. An expected
line ending in "..." matches any line that starts with the text before it.
Every line that a command with --json prints must parse as JSON.
With --update the file is rewritten with what the tool printed."""
import json, os, shlex, subprocess, sys, tempfile


def parse(lines):
    """Steps, each with the comment lines before it, and the comments after the last."""
    steps, cur, notes = [], None, []
    for line in lines:
        if line.startswith("$ "):
            cur = {"cmd": line[2:], "in": [], "out": [], "err": [], "exit": 0, "pre": notes}
            steps.append(cur)
            notes = []
        elif line.startswith("#") or cur is None:
            notes.append(line)
        elif line.startswith("< ") or line == "<":
            cur["in"].append(line[2:])
        elif line.startswith("! ") or line == "!":
            cur["err"].append(line[2:])
        elif line.startswith("[exit "):
            cur["exit"] = int(line[6:-1])
        else:
            cur["out"].append(line)
    return steps, notes


def wild(expected, text):
    """The printed lines, with each one that an expected "..." line matches shown as that line."""
    lines = text.splitlines()
    for i, e in enumerate(expected[:len(lines)]):
        if e.endswith("...") and lines[i].startswith(e[:-3]):
            lines[i] = e
    return lines


def render(step, out, err, status):
    text = [f"$ {step['cmd']}"] + [f"< {l}" if l else "<" for l in step["in"]]
    text += out + [f"! {l}" if l else "!" for l in err]
    if status:
        text.append(f"[exit {status}]")
    return step["pre"] + text


def main():
    update = "--update" in sys.argv
    binary, path = [os.path.abspath(a) for a in sys.argv[1:] if a != "--update"][:2]
    data = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../data")
    steps, tail = parse(open(path).read().splitlines())
    want, got = [], []
    with tempfile.TemporaryDirectory(dir="/dev/shm") as root, tempfile.TemporaryDirectory() as scratch:
        for step in steps:
            cmd = step["cmd"].replace("@ROOT@", root).replace("@DIR@", scratch).replace("@DATA@", data)
            words = shlex.split(cmd)
            words[0] = binary
            stdin = "".join(l + "\n" for l in step["in"])
            r = subprocess.run(words, input=stdin.encode(), capture_output=True, timeout=120, cwd=scratch)
            if "--json" in words:  # each line parses back, or the runner stops here with where it did not
                [json.loads(line) for line in r.stdout.decode().splitlines()]
            out = r.stdout.decode(errors="replace").replace(root, "@ROOT@").replace(scratch, "@DIR@")
            err = r.stderr.decode(errors="replace").replace(root, "@ROOT@").replace(scratch, "@DIR@")
            want += render(step, step["out"], step["err"], step["exit"])
            got += render(step, wild(step["out"], out), wild(step["err"], err), r.returncode)
    want, got = want + tail, got + tail
    if update:
        open(path, "w").write("\n".join(got) + "\n")
        return 0
    if want != got:
        import difflib
        sys.stdout.writelines(difflib.unified_diff([l + "\n" for l in want], [l + "\n" for l in got],
                                                   "expected", "actual"))
        return 1
    print(f"{os.path.basename(path)}: {len(steps)} commands as expected")
    return 0


if __name__ == "__main__":
    sys.exit(main())
