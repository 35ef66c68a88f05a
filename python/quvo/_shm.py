"""System V shared-memory calls from libc, through ctypes (Linux, 64-bit glibc)."""

import ctypes
import weakref

IPC_RMID = 0
IPC_STAT = 2
SHM_RDONLY = 0o10000

_libc = ctypes.CDLL(None, use_errno=True)

_libc.ftok.argtypes = (ctypes.c_char_p, ctypes.c_int)
_libc.ftok.restype = ctypes.c_int
_libc.shmget.argtypes = (ctypes.c_int, ctypes.c_size_t, ctypes.c_int)
_libc.shmget.restype = ctypes.c_int
_libc.shmat.argtypes = (ctypes.c_int, ctypes.c_void_p, ctypes.c_int)
_libc.shmat.restype = ctypes.c_void_p
_libc.shmdt.argtypes = (ctypes.c_void_p,)
_libc.shmdt.restype = ctypes.c_int
_libc.shmctl.argtypes = (ctypes.c_int, ctypes.c_int, ctypes.c_void_p)
_libc.shmctl.restype = ctypes.c_int

_SHMAT_FAILED = ctypes.c_void_p(-1).value


class IpcPerm(ctypes.Structure):
    _fields_ = [
        ("key", ctypes.c_int),
        ("uid", ctypes.c_uint),
        ("gid", ctypes.c_uint),
        ("cuid", ctypes.c_uint),
        ("cgid", ctypes.c_uint),
        ("mode", ctypes.c_uint),
        ("seq", ctypes.c_ushort),
        ("pad2", ctypes.c_ushort),
        ("reserved1", ctypes.c_ulong),
        ("reserved2", ctypes.c_ulong),
    ]


class ShmidDs(ctypes.Structure):
    _fields_ = [
        ("shm_perm", IpcPerm),
        ("shm_segsz", ctypes.c_size_t),
        ("shm_atime", ctypes.c_long),
        ("shm_dtime", ctypes.c_long),
        ("shm_ctime", ctypes.c_long),
        ("shm_cpid", ctypes.c_int),
        ("shm_lpid", ctypes.c_int),
        ("shm_nattch", ctypes.c_ulong),
        # Room to spare so that a larger kernel/libc record never overruns ours.
        ("reserved", ctypes.c_ubyte * 128),
    ]


def errno():
    return ctypes.get_errno()


def ftok(path, proj_id):
    return _libc.ftok(path.encode(), proj_id)


def shmget(key, size, flags):
    return _libc.shmget(key, size, flags)


def shmctl(shmid, command, record=None):
    return _libc.shmctl(shmid, command, None if record is None else ctypes.byref(record))


def stat(shmid):
    """The segment's shmid_ds, or None with errno set."""
    record = ShmidDs()
    return record if shmctl(shmid, IPC_STAT, record) == 0 else None


def shmat_readonly(shmid):
    """Address of the segment attached read-only, or None with errno set."""
    address = _libc.shmat(shmid, None, SHM_RDONLY)
    return None if address == _SHMAT_FAILED else address


def shmdt(address):
    return _libc.shmdt(address)


def read(address, size):
    """A copy of `size` bytes at an attached segment's `address`."""
    return ctypes.string_at(address, size)


def mapping(address, size):
    """A read-only memoryview of an attached segment; it is detached once this
    view and every view or array made from it are gone, so none of them can
    outlive the mapping."""
    block = (ctypes.c_ubyte * size).from_address(address)
    weakref.finalize(block, shmdt, address)
    return memoryview(block).cast("B").toreadonly()
