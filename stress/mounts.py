"""Small file systems in a private mount namespace, which all later children share."""

import ctypes
from pathlib import Path

_LIBC = ctypes.CDLL(None, use_errno=True)
_NEW_NAMESPACE, _DETACH = 0x00020000, 2
_READ_ONLY, _REMOUNT, _BIND, _RECURSIVE, _PRIVATE = 1, 32, 4096, 16384, 1 << 18


def _mount(kind: bytes | None, path: bytes, flags: int, data: bytes | None = None) -> bool:
    return _LIBC.mount(b"none", path, kind, ctypes.c_ulong(flags), data) == 0


def mount_small(path: Path) -> bool:
    return (_LIBC.unshare(_NEW_NAMESPACE) == 0 and _mount(None, b"/", _RECURSIVE | _PRIVATE) and
            _mount(b"tmpfs", bytes(path), 0, b"size=64k,nr_inodes=16"))


def set_read_only(path: Path, read_only: bool) -> None:
    """The mount, not the file system: that would have to be free of removed files in use."""
    _mount(None, bytes(path), _REMOUNT | _BIND | (_READ_ONLY if read_only else 0))


def unmount(path: Path) -> None:
    _LIBC.umount2(bytes(path), _DETACH)
