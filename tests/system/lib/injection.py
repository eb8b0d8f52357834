# SPDX-License-Identifier: MIT
"""Makes another process do a system call, as an attacker would who has taken it over. Linux on x86-64, as root."""
import ctypes
import os
import platform
import unittest

ATTACH, DETACH, SINGLE_STEP, GET_REGISTERS, SET_REGISTERS, PEEK, POKE = 16, 17, 9, 12, 13, 2, 5

# The fields of user_regs_struct, in their order.
NAMES = ("r15 r14 r13 r12 rbp rbx r11 r10 r9 r8 rax rcx rdx rsi rdi orig_rax rip cs eflags rsp ss fs_base gs_base ds es "
         "fs gs").split()
ARGUMENTS = ("rdi", "rsi", "rdx", "r10")

SYSCALL_INSTRUCTION = 0x050F


class Registers(ctypes.Structure):
    _fields_ = [(name, ctypes.c_ulonglong) for name in NAMES]


def need_injection():
    if platform.machine() != "x86_64" or os.geteuid() != 0:
        raise unittest.SkipTest("only root on x86-64 can make another process do a call")


class Puppet:
    """A stopped process that does the calls that it is told to do. Left as it was when closed."""

    def __init__(self, pid):
        self.pid = pid
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.libc.ptrace.restype = ctypes.c_long
        self.libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
        self.trace(ATTACH)
        os.waitpid(pid, 0)
        self.before = self.registers()

    def trace(self, request, address=0, data=0):
        ctypes.set_errno(0)
        result = self.libc.ptrace(request, self.pid, address, data)
        if ctypes.get_errno():
            raise OSError(ctypes.get_errno(), f"ptrace({request})")
        return result

    def registers(self):
        found = Registers()
        self.trace(GET_REGISTERS, 0, ctypes.addressof(found))
        return found

    def call(self, number, *arguments):
        """Does the system call. Returns its result, negative for an error. Text arguments are put on its stack."""
        wanted = Registers.from_buffer_copy(self.before)
        wanted.rax, wanted.orig_rax = number, 2 ** 64 - 1
        place = (self.before.rsp - 4096) & ~0xF
        for name, value in zip(ARGUMENTS, arguments):
            if isinstance(value, bytes):
                for start in range(0, len(value) + 1, 8):
                    word = value[start:start + 8].ljust(8, b"\0")
                    self.trace(POKE, place + start, int.from_bytes(word, "little"))
                value, place = place, place + 512
            setattr(wanted, name, value % 2 ** 64)
        instruction = self.trace(PEEK, wanted.rip)
        self.trace(POKE, wanted.rip, (instruction & ~0xFFFF) | SYSCALL_INSTRUCTION)
        self.trace(SET_REGISTERS, 0, ctypes.addressof(wanted))
        self.trace(SINGLE_STEP)
        os.waitpid(self.pid, 0)
        result = ctypes.c_longlong(self.registers().rax).value
        self.trace(POKE, wanted.rip, instruction)
        return result

    def close(self):
        self.trace(SET_REGISTERS, 0, ctypes.addressof(self.before))
        self.trace(DETACH)
