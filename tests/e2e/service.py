"""What the tests of the example services share."""
import ctypes
import os
import re
import socket

import pytest

from conftest import ASAN_BUILD, BUILD

SYS_PIDFD_GETFD = 438


def builds(program):
    """The builds that have an example, as a fixture's parameters."""
    return [pytest.param(b, id=b.name) for b in (BUILD, ASAN_BUILD) if b == BUILD or (b / program).exists()]


def listening_socket(pid, log, alias=".*?"):
    """A service's listening socket itself, as a descriptor of ours; its number is the last that the log tells."""
    number = re.findall(rf"STARTED listener fd(\d+) for usr requests on {alias}:", log)[-1]
    libc = ctypes.CDLL(None, use_errno=True)
    pidfd = os.pidfd_open(pid)
    fd = libc.syscall(SYS_PIDFD_GETFD, pidfd, int(number), 0)
    os.close(pidfd)
    if fd < 0:
        pytest.skip(f"no descriptor of another process here: {os.strerror(ctypes.get_errno())}")
    return socket.socket(fileno=fd)
