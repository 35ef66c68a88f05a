"""Helpers shared by the Python tests: tool paths, key sandboxes and a feed process."""

import ctypes
import json
import os
import subprocess
import tempfile
import time
import weakref

import quvo
from quvo import _shm

IPC_CREAT = 0o1000


def tool_path(variable):
    path = os.environ.get(variable)
    if not path:
        raise RuntimeError(f"{variable} is not set: run these tests through ctest")
    return path


def segment_id(key_file_path):
    """System V id of the segment keyed by this file, or -1 when there is none."""
    key = _shm.ftok(key_file_path, quvo.SHM_PROJ_ID)
    return -1 if key == -1 else _shm.shmget(key, 0, 0)


def health_segment_id(key_dir):
    """System V id of the health segment of a key directory, or -1 when there is none."""
    key = _shm.ftok(os.path.join(key_dir, quvo.HEALTH_KEY_FILE), quvo.HEALTH_PROJ_ID)
    return -1 if key == -1 else _shm.shmget(key, 0, 0)


def attach_count(key_file_path):
    shmid = segment_id(key_file_path)
    info = _shm.stat(shmid) if shmid >= 0 else None
    return -1 if info is None else info.shm_nattch


class KeySandbox:
    """A fresh directory holding empty key_f and key_e. cleanup() removes the
    segments keyed by them (the health segment too) and the directory."""

    def __init__(self):
        self._dir = tempfile.TemporaryDirectory(prefix="quvo-py-")
        self.path = self._dir.name
        self.key_paths = [os.path.join(self.path, name) for name in (quvo.UPDATE_RING_KEY_FILE, quvo.MD_AREA_KEY_FILE)]
        for path in self.key_paths:
            open(path, "w").close()
        taken = [path for path in self.key_paths if segment_id(path) >= 0]
        if health_segment_id(self.path) >= 0:
            taken.append(f"{quvo.HEALTH_KEY_FILE} (health)")
        if taken:
            # ftok keys come from inode numbers and can collide; never touch another run's segment.
            raise RuntimeError(f"a segment already exists for the key of {taken}; run again")

    def cleanup(self):
        for path in self.key_paths:
            shmid = segment_id(path)
            if shmid >= 0:
                _shm.shmctl(shmid, _shm.IPC_RMID)
        shmid = health_segment_id(self.path)
        if shmid >= 0:
            _shm.shmctl(shmid, _shm.IPC_RMID)
        self._dir.cleanup()


class Feed:
    """quvo-md on the simulator, keyed by a sandbox, writing its log in the sandbox."""

    def __init__(self, sandbox, device):
        self.sandbox = sandbox
        config = os.path.join(sandbox.path, "config.ini")
        with open(config, "w") as out:
            out.write(
                "[config]\n"
                f"device = {device}\n"
                "cpucore = -1\n"
                "insts = all\n"
                "shfe2ps = enabled\n"
                "ine2ps = enabled\n"
            )
        self._output_path = os.path.join(sandbox.path, "feed.out")
        with open(self._output_path, "w") as output:
            self.process = subprocess.Popen(
                [tool_path("QUVO_MD_PATH"), config],
                cwd=sandbox.path,
                env=dict(os.environ, QUVO_KEY_DIR=sandbox.path),
                stdout=output,
                stderr=subprocess.STDOUT,
            )

    def output(self):
        with open(self._output_path, errors="replace") as text:
            return text.read()

    def wait_for_output(self, text, timeout):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if text in self.output():
                return True
            if self.process.poll() is not None:
                return text in self.output()
            time.sleep(0.01)
        return False

    def wait(self, timeout):
        """Exit status, or None after killing a feed that did not end in time."""
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None


def dump_json(key_dir, *args):
    """quvo-dump --json's lines, parsed."""
    result = subprocess.run(
        [tool_path("QUVO_DUMP_PATH"), "--json", *args],
        env=dict(os.environ, QUVO_KEY_DIR=key_dir),
        capture_output=True,
        text=True,
        timeout=60,
    )
    if result.returncode != 0:
        raise RuntimeError(f"quvo-dump {' '.join(args)} exited {result.returncode}: {result.stderr}")
    return [json.loads(line) for line in result.stdout.splitlines()]


class WritableSegments:
    """Both segments made by the test itself in a sandbox and attached writable,
    standing in for the feed."""

    def __init__(self, sandbox, ring_size=quvo.UPDATE_RING_SIZE, area_size=quvo.MD_AREA_SIZE):
        self.views = []
        for path, size in zip(sandbox.key_paths, (ring_size, area_size)):
            if size is None:
                self.views.append(None)
                continue
            shmid = _shm.shmget(_shm.ftok(path, quvo.SHM_PROJ_ID), size, IPC_CREAT | 0o600)
            if shmid < 0:
                raise OSError(_shm.errno(), f"cannot create a segment for {path}")
            address = _shm._libc.shmat(shmid, None, 0)
            if address == ctypes.c_void_p(-1).value:
                raise OSError(_shm.errno(), f"cannot attach the segment for {path}")
            block = (ctypes.c_ubyte * size).from_address(address)
            weakref.finalize(block, _shm.shmdt, address)
            self.views.append(memoryview(block).cast("B"))
        self.ring, self.area = self.views

    def close(self):
        self.views = self.ring = self.area = None

