"""The C interface as ctypes calls it: records, functions and variables of the public headers.

Every name is declared here once. The other modules call these functions, and nobody else needs them.
"""

from __future__ import annotations

import ctypes
import os
import pathlib
from ctypes import (CFUNCTYPE, POINTER, Structure, c_char, c_char_p, c_int, c_int32, c_long, c_size_t,
                    c_uint8, c_uint16, c_uint32, c_void_p)
from typing import Any

STATUS = c_int32
UINTPTR = c_size_t  # as wide as a pointer on all machines that the library runs on
TIME = getattr(ctypes, "c_time_t", c_long)  # Python 3.12 knows about times of 64 bits on 32-bit machines


class Timeval(Structure):
    """struct timeval"""
    _fields_ = [("tv_sec", TIME), ("tv_usec", TIME)]


class I2cHandle(Structure):
    """kiv_i2c_handle"""
    _fields_ = [("fd", c_int32), ("bus", c_int32), ("deviceAddress", c_uint16)]


class WaitEntry(Structure):
    """kiv_event_wait_entry"""
    _fields_ = [("pname", c_char_p), ("fired", c_int32), ("p_data", c_void_p), ("data_sz", c_uint32),
                ("actual_sz", c_uint32)]


class Message(Structure):
    """kiv_message"""
    _fields_ = [("msgId", c_int32), ("pData", c_void_p), ("reserved", c_uint32 * 3), ("sizeBytes", c_uint32),
                ("isSync", c_int32), ("syncTimeout", c_int32), ("pBarrier", c_void_p)]


class Thread(Structure):
    """kiv_thread"""


ThreadHandler = CFUNCTYPE(c_int32, POINTER(Thread), POINTER(Message))
GpioCallback = CFUNCTYPE(c_int, c_int32, UINTPTR)


class ThreadParams(Structure):
    """kiv_thread_params"""
    _fields_ = [("name", c_char * 64), ("priority", c_uint32), ("handler", ThreadHandler),
                ("timeout", c_int32), ("userData", c_void_p)]


# Set afterwards, because the handler's parameters name the record.
Thread._fields_ = [("name", c_char * 64), ("priority", c_uint32), ("handler", ThreadHandler),
                   ("timeout", c_int32), ("userData", c_void_p), ("gthread", c_void_p),
                   ("msgQueue", c_void_p), ("running", c_int32)]


class TimingLane(Structure):
    """kiv_tl_map_entry"""
    _fields_ = [("event_id", c_int32), ("label", c_char_p), ("state", c_int32), ("last_time", Timeval)]


RECORDS = {"kiv_i2c_handle": I2cHandle, "kiv_event_wait_entry": WaitEntry, "kiv_message": Message,
           "kiv_thread_params": ThreadParams, "kiv_thread": Thread, "kiv_tl_map_entry": TimingLane}

# The result and the parameters of each function. Those that take more after a format end with an ellipsis.
FUNCTIONS: dict[str, tuple[Any, ...]] = {
    "zol_init": (STATUS, c_char_p),
    "zol_deinit": (STATUS,),
    "kiv_get_version": (STATUS, c_char_p),

    "_kiv_block_print": (None, c_int, c_char_p, ...),

    "kiv_config_get_param": (c_int32, c_char_p, c_char_p, c_char_p, c_char_p, c_size_t),
    "kiv_config_get_param_int": (c_int32, c_char_p, c_char_p, c_char_p, POINTER(c_int32)),
    "kiv_config_get_size": (c_size_t, c_char_p, c_char_p, c_char_p),
    "kiv_atoi": (STATUS, c_char_p, POINTER(c_int32)),

    "kiv_token_isExist": (STATUS, c_char_p),
    "kiv_token_getSize": (STATUS, c_char_p, POINTER(c_uint32)),
    "kiv_token_getData": (STATUS, c_char_p, c_void_p, c_size_t, POINTER(c_uint32)),

    "kiv_i2c_open": (STATUS, POINTER(I2cHandle), c_int32, c_uint16),
    "kiv_i2c_close": (STATUS, POINTER(I2cHandle)),
    "kiv_i2c_read_reg8": (STATUS, POINTER(I2cHandle), c_uint8, c_int32, c_char_p),
    "kiv_i2c_read_reg16": (STATUS, POINTER(I2cHandle), c_uint16, c_int32, c_char_p),
    "kiv_i2c_write_reg8": (STATUS, POINTER(I2cHandle), c_uint8, c_uint32, c_char_p),
    "kiv_i2c_write_reg16": (STATUS, POINTER(I2cHandle), c_uint16, c_uint32, c_char_p),

    "kiv_gpio_set_simulator_mode": (STATUS, c_int),
    "kiv_gpio_request": (STATUS, c_int, c_char_p),
    "kiv_gpio_free": (STATUS, c_int),
    "kiv_gpio_set": (STATUS, c_int, c_int),
    "kiv_gpio_get": (STATUS, c_int, POINTER(c_int)),
    "kiv_gpio_status_dump": (STATUS,),
    "kiv_gpio_register_callback": (STATUS, c_int, c_int, c_int, c_int, GpioCallback, UINTPTR),
    "kiv_gpio_unregister_callback": (STATUS, c_int),

    "kiv_events_create_group": (STATUS, c_char_p, POINTER(c_void_p)),
    "kiv_events_delete_group": (STATUS, c_void_p),
    "kiv_events_create_event": (STATUS, c_char_p, c_void_p, c_void_p, POINTER(c_void_p)),
    "kiv_events_delete_event": (STATUS, c_void_p),
    "kiv_events_set_enable_event": (STATUS, c_void_p, c_int32),
    "kiv_events_set_enable_event_by_name": (STATUS, c_char_p, c_int32),
    "kiv_events_status_dump": (STATUS,),
    "kiv_events_notify": (STATUS, c_void_p, c_char_p, c_uint32, c_uint32),
    "kiv_events_notify_by_name": (STATUS, c_char_p, c_char_p, c_uint32, c_uint32),
    "kiv_events_get_event_fd": (STATUS, c_char_p, POINTER(c_int32)),
    "kiv_events_wait_for": (STATUS, POINTER(WaitEntry), c_uint32, c_int32),

    "kiv_thread_create": (STATUS, POINTER(Thread), POINTER(ThreadParams)),
    "kiv_thread_start": (STATUS, POINTER(Thread)),
    "kiv_thread_stop": (STATUS, POINTER(Thread)),
    "kiv_thread_join": (STATUS, POINTER(Thread)),
    "kiv_thread_delete": (STATUS, POINTER(Thread)),
    "kiv_thread_isRunning": (c_int32, POINTER(Thread)),
    "kiv_thread_sendMsg": (STATUS, POINTER(Thread), POINTER(Message)),
    "kiv_message_new": (POINTER(Message), c_int32, c_uint32),
    "kiv_message_free": (None, POINTER(Message)),

    "kiv_tl_init": (c_void_p, c_char_p, POINTER(TimingLane)),
    "kiv_tl": (None, c_void_p, c_int32, c_int32, c_char_p, ...),
    "kiv_tl_deinit": (None, c_void_p),
}

VARIABLES: dict[str, Any] = {"g_debugLevel": c_uint32, "g_tokensPath": c_char * 64}

# Exported names that have no use in Python, as regular expressions, and the reason.
LEFT_OUT = {
    r"kiv_(config|debug|events|gpio|i2c|thread|token)_(de)?init": "zol_init() and zol_deinit() call them",
    r"kiv_lock|kiv_unlock|kiv_thread_sleep|kiv_prepare_time_spec|kiv_cond_timedwait": "threading and time",
    r"kiv_sscanf|kiv_snprintf|kiv_config_sscanf": "text formats",
    r"kiv_xml_\w+": "xml.etree",
    r"kiv_thread_create_default": "kiv_thread_create() does the same",
    r"kiv_gpio_direction_(in|out)|kiv_events_set_simulator_mode": "they change nothing",
    r"kiv_events_delete_event_by_name": "an Event is deleted by its owner",
    r"spi_init|spi_deinit": "not implemented",
    r"(kiv_|_kiv_|_zol_|_)?test_\w+|stoi|g_params": "the test tool",
}


def _file() -> str:
    """The library that the environment names, the one beside this package, or the system's."""
    name = "libzol.so.0"
    beside = pathlib.Path(__file__).resolve().parents[3] / name  # PREFIX/lib/python3/dist-packages/zol
    return os.environ.get("ZOL_LIBRARY") or (str(beside) if beside.exists() else name)


def _load() -> ctypes.CDLL:
    """CDLL releases the interpreter lock during each call, and keeps errno."""
    file = _file()
    try:
        library = ctypes.CDLL(file, use_errno=True)
    except OSError as error:
        raise ImportError(f"libzol cannot be loaded: {error}; install libzol0, or let the environment "
                          f"variable ZOL_LIBRARY name the file libzol.so.0", path=file) from error
    for name, (result, *parameters) in FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = [parameter for parameter in parameters if parameter is not ...]
    return library


library = _load()
