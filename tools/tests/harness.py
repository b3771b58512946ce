"""What the end-to-end tests share: checks that print and count, and child processes that
are read with a time limit and always killed at the end, whatever went wrong."""
import subprocess
import threading

CHILDREN = []
FAILURES = []


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what, flush=True)
    if not condition:
        FAILURES.append(what)
    return condition


def start(cmd, **kw):
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kw)
    CHILDREN.append(proc)
    return proc


def read_line(proc, seconds, stream=None):
    """The next line of a child's standard output (or of stream), or None after the time limit."""
    result = []
    source = stream or proc.stdout
    reader = threading.Thread(target=lambda: result.append(source.readline()), daemon=True)
    reader.start()
    reader.join(seconds)
    return result[0] if result else None


def kill_children():
    for child in CHILDREN:
        if child.poll() is None:
            child.kill()
            child.wait()
