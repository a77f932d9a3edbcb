"""The zebtrk package end to end: each case runs in a fresh interpreter (the
plug-in is one per process and connects once), against a zebtrksvc child on
a temporary drive or in emulator mode on a temporary HOME."""
import glob
import os
import socket
import subprocess
import sys
import tempfile
import threading
import time

import pytest

SVC = os.environ["ZEBTRKSVC"]
SOCKET = "/tmp/zebtrksvc"

PRELUDE = """
import os, sys, threading, numpy as np, zebtrk
D = os.environ["DRIVE"]
def dat(m):
    return np.fromfile(os.path.join(D, m.name + ".dat"), "<u2").reshape(m.frames, m.height, m.width)
def raises(kind, call, text):
    try:
        call()
    except kind as error:
        assert text in str(error), str(error)
        return
    raise AssertionError("no " + kind.__name__)
"""

# Cases run in both modes: (id, snippet). Each must end by printing "ok".
BOTH = [
    ("metadata", """
names = sorted(n[:-4] for n in os.listdir(D) if n.endswith(".dat"))
movies = list(zebtrk.Drive())
assert sorted(m.name for m in movies) == names and len(names) == 3
for m in movies:
    assert dat(m).shape == (m.frames, m.height, m.width) == (12, m.height, m.width)
    assert m.properties["numFrames"] == "12" and m.size == m.frames * m.width * m.height * 2
    assert m.end - m.start == m.duration > m.duration * 0 and m.start.timetuple().tm_yday == 123
    assert "frames=12" in m.info
print("ok")"""),
    ("stack, frames, slices, steps", """
d = zebtrk.Drive()
m = d["2"]
a = dat(m)
for got, want in [(m.read(), a), (m[5], a[5]), (m[-1], a[-1]), (m[2:9:3], a[2:9:3]), (m[::-4], a[::-4]),
                  (m[5:5], a[5:5]), (m[100:], a[100:]), (m[np.int64(3)], a[3])]:
    assert got.dtype == np.uint16 and got.shape == want.shape and np.array_equal(got, want)
assert [i for i, f in m.iter_frames(1, 8, 3) if np.array_equal(f, a[i])] == [1, 4, 7]
out = np.zeros_like(a)
assert m.read(out=out) is out and np.array_equal(out, a)
raises(ValueError, lambda: m.read(out=out[1:]), "out must have the shape")
print("ok")"""),
    ("errors", """
d = zebtrk.Drive()
m = d[0 + 1]
raises(KeyError, lambda: d["99-Nothing"], 'no movie named "99-Nothing"')
raises(FileNotFoundError, lambda: d.remove("1"), 'no movie named "1"')
raises(IndexError, lambda: m[m.frames], "frame 12 is out of range")
raises(IndexError, lambda: m[-13], "frame -13")
raises(TypeError, lambda: m[1.5], "not float")
print("ok")"""),
    ("remove, change callbacks, one that raises, one that removes itself", """
hooked = []
sys.unraisablehook = lambda u: hooked.append(type(u.exc_value).__name__)
d = zebtrk.Drive()
seen = threading.Semaphore(0)
d.on_change(lambda: 1 / 0)
d.on_change(seen.release)
once = []  # a callback that reads the drive and removes itself
handler = d.on_change(lambda: (once.append(len(d)), handler.remove()))
for m in list(d)[:2]:
    d.remove(m.name)
    assert seen.acquire(timeout=10) and m.name not in d and not os.path.exists(os.path.join(D, m.name + ".dat"))
assert len(d) == 1 and hooked[:2] == ["ZeroDivisionError"] * 2 and once == [2], (hooked, once)
print("ok")"""),
]

# Cases of one mode: (id, mode, snippet, text expected on stdout or stderr).
ONE = [
    ("no service", "none", "zebtrk.Drive()", "ServiceError: the movie service is not running"),
    ("no service is a ConnectionError", "none",
     "raises(ConnectionError, zebtrk.Drive, 'zebtrksvc --drive DIR'); print('ok')", "ok"),
    ("emulator: refused removal", "emulator", """
d = zebtrk.Drive()
name = list(d)[0].name
os.remove(os.path.join(D, name + ".dat")); os.mkdir(os.path.join(D, name + ".dat"))
raises(zebtrk.Error, lambda: d.remove(name), "could not be removed")
print("ok")""", "ok"),
]


@pytest.fixture
def env():
    with tempfile.TemporaryDirectory() as folder:
        os.mkdir(os.path.join(folder, "home"))
        environment = dict(os.environ, HOME=os.path.join(folder, "home"), DRIVE=os.path.join(folder, "drive"))
        environment.pop("ZEBTRK_ENABLE_EMULATOR", None)
        yield environment


def listening():
    with socket.socket(socket.AF_UNIX) as probe:
        return probe.connect_ex(SOCKET) == 0


@pytest.fixture
def start(env):
    """start(mode): makes the demo drive and serves it as `mode` says."""
    services = []
    segments = set(glob.glob("/dev/shm/zebtrksvc-*"))

    def run(mode, movies=3, extra=()):
        if mode == "emulator":
            env["DRIVE"] = os.path.join(env["HOME"], ".cache/Ostrel Systems/TRK")
            env["ZEBTRK_ENABLE_EMULATOR"] = "1"
        subprocess.run([SVC, "make-demo", env["DRIVE"], "--movies", str(movies), "--frames", "12"], check=True,
                       stdout=subprocess.DEVNULL)
        for args in extra:
            subprocess.run([SVC, "make-movie", env["DRIVE"], *args], check=True, stdout=subprocess.DEVNULL)
        if mode != "service":
            return None
        assert not listening(), "another service owns " + SOCKET
        services.append(subprocess.Popen([SVC, "--drive", env["DRIVE"]], stderr=subprocess.DEVNULL))
        deadline = time.monotonic() + 10
        while not listening():
            assert time.monotonic() < deadline and services[-1].poll() is None, "the simulator did not start"
            time.sleep(0.02)
        return services[-1]

    yield run
    for service in services:
        service.terminate()
        service.wait(10)
    # A killed service leaves its socket file and segments behind.
    if any(service.returncode == -9 for service in services):
        for leftover in set(glob.glob("/dev/shm/zebtrksvc-*")) - segments:
            os.unlink(leftover)
        if not listening():
            os.unlink(SOCKET)


def python(env, code, **options):
    return subprocess.Popen([sys.executable, "-c", PRELUDE + code], env=env, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)


def finish(process, timeout=60):
    try:
        out, err = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        process.kill()  # a hang fails the test and leaves no process behind
        process.communicate()
        raise
    return process.returncode, out + err


@pytest.mark.parametrize("mode", ["service", "emulator"])
@pytest.mark.parametrize("snippet", [snippet for _, snippet in BOTH], ids=[name for name, _ in BOTH])
def test_both_modes(start, env, mode, snippet):
    start(mode)
    code, output = finish(python(env, snippet))
    assert code == 0 and output.strip() == "ok", output


@pytest.mark.parametrize("mode, snippet, expected", [row[1:] for row in ONE], ids=[row[0] for row in ONE])
def test_one_mode(start, env, mode, snippet, expected):
    start(mode)
    _, output = finish(python(env, snippet))
    assert expected in output, output


def test_service_killed_mid_read(start, env):
    # A multi-gigabyte movie (sparse on disk) that takes far longer to read
    # than the test waits.
    service = start("service", 1, [("--width", "640", "--height", "512", "--frames", "20000", "--number", "7",
                                    "--name", "Long", "--sparse")])
    reader = python(env, """
for i, frame in zebtrk.Drive()["7-Long"].iter_frames():
    if i == 1:
        print("reading", flush=True)
print("finished")""")
    watchdog = threading.Timer(30, reader.kill)  # bounds the readline below
    watchdog.start()
    try:
        assert reader.stdout.readline() == "reading\n"
        service.kill()
        code, output = finish(reader, 30)
    finally:
        watchdog.cancel()
    assert code == 1 and "zebtrk.ServiceError: reading frame" in output and "finished" not in output


def test_installed_package(start, env):
    start("emulator")
    with tempfile.TemporaryDirectory() as prefix:
        subprocess.run([os.environ["CMAKE_COMMAND"], "--install", os.environ["ZEBTRK_BUILD_DIR"], "--prefix", prefix],
                       check=True, stdout=subprocess.DEVNULL)
        env["PYTHONPATH"] = os.path.join(prefix, os.environ["ZEBTRK_PYTHON_INSTALL_DIR"])
        code, output = finish(python(env, "print(zebtrk.__file__, zebtrk._zebtrk.plugin_path(), len(zebtrk.Drive()))",
                                     cwd="/"))
        package, plugin, movies = output.split()
        assert code == 0 and package == env["PYTHONPATH"] + "/zebtrk/__init__.py" and movies == "3", output
        assert plugin.startswith(os.path.realpath(prefix) + "/") and plugin.endswith("/libzebtrk.so"), output
