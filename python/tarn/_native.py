"""The C libraries and their prototypes, loaded on first use.

Nothing is loaded when the package is imported: the first access to one of
this module's library attributes (``host``, ``tarn``, ``libc``,
``tarn_clt``, ``tarn_cache``) finds, checks and loads libtarnhost and
libtarn (see _loader) and declares the prototypes used here.  A library
that lacks one of them is older than this package and is refused with an
ImportError naming the missing function.
"""

from __future__ import annotations

import ctypes
import os
import shutil
import threading
from ctypes import (POINTER, c_char_p, c_int, c_int32, c_size_t, c_uint8,
                    c_uint16, c_uint32, c_uint64, c_void_p)
from pathlib import Path
from typing import Any, Optional

from . import _loader
from . import _structs as S

TARNCTL_ENV = "TARNCTL"

u32 = c_uint32
u16 = c_uint16
p_u16 = POINTER(c_uint16)
p_u32 = POINTER(c_uint32)

# Declared here, assigned by _load_all() on first access (module __getattr__).
host: ctypes.CDLL
tarn: ctypes.CDLL
libc: ctypes.CDLL
tarn_clt: Any
tarn_cache: S.TarnCache

_load_lock = threading.Lock()


def _proto(lib: ctypes.CDLL, name: str, restype: Any, *argtypes: Any) -> None:
    try:
        fn = getattr(lib, name)
    except AttributeError:
        raise ImportError(
            f"tarn: {lib._name} has no {name}(): it is older than this "
            f"package (tarn {_loader.PACKAGE_VERSION}); use the libraries "
            f"of the same source tree or release") from None
    fn.restype = restype
    fn.argtypes = list(argtypes)


def _prototype(host: ctypes.CDLL, tarn: ctypes.CDLL) -> None:
    # ---- libtarnhost --------------------------------------------------------------

    _proto(host, "tarnhost_root", c_char_p)
    _proto(host, "tarnhost_root_prepare", c_int)
    _proto(host, "tarnhost_device_up", c_int, c_char_p)
    _proto(host, "tarnhost_device_down", c_int)
    _proto(host, "tarnhost_kvs_put", u32, c_char_p, c_void_p, u32, c_void_p, u32)
    _proto(host, "tarnhost_kvs_del", u32, c_char_p, c_void_p, u32)
    _proto(host, "tarnhost_notification_json", ctypes.c_int64, u32, u32, c_char_p, u32,
           c_char_p, u32)
    _proto(host, "tarnhost_capture", None, c_int)
    _proto(host, "tarnhost_capture_clear", None)
    _proto(host, "tarnhost_capture_count", c_size_t, c_int)
    _proto(host, "tarnhost_capture_line", c_char_p, c_int, c_size_t)
    _proto(host, "tarnhost_log_set_facility", None, c_char_p, c_uint8)
    _proto(host, "tarnhost_log_throttle_reset", None)
    _proto(host, "tarnhost_cell_set", None, u32)
    _proto(host, "tarnhost_cell_reset", None)
    _proto(host, "tarnhost_fault_set", None, c_char_p, u32, u32)
    _proto(host, "tarnhost_fault_clear_all", None)
    _proto(host, "tarnhost_bus_subscribe", c_int, u32, u32, c_int)
    _proto(host, "bus_bind", u32, u32, c_int32, c_void_p, c_char_p)
    _proto(host, "bus_unbind", u32, u32)
    _proto(host, "bus_drop", c_int32, u32, c_void_p)
    _proto(host, "bus_payload_get", c_void_p, c_void_p, p_u32)
    _proto(host, "bus_opc_get", u32, c_void_p)
    _proto(host, "bus_opc_name_get", c_char_p, u32)
    _proto(host, "bus_msg_id_get", u32, c_void_p)
    _proto(host, "tarnhost_bus_publish", c_int, u32, u32, c_void_p, u32)
    _proto(host, "tarnhost_bus_recv_ms", c_void_p, u32, u32)
    _proto(host, "tarnhost_bus_handle_sap", c_int32, u32)
    _proto(host, "tarnhost_bus_sender_get", u32, c_void_p)
    _proto(host, "tarnhost_bus_msg_new", c_void_p, u32, c_void_p, u32)
    _proto(host, "tarnhost_bus_subscribers", c_size_t, u32, c_void_p, c_size_t)
    _proto(host, "tarnhost_bus_fd", c_int, u32)
    _proto(host, "tarnhost_log_held", c_uint64)
    _proto(host, "bus_send", c_int32, u32, u32, u32, u32, c_void_p, u32,
           c_void_p, c_void_p, c_void_p)
    _proto(host, "bus_recv", c_void_p, u32, c_void_p)

    # ---- libtarn: state, registration, cache mode ----------------------------------

    _proto(tarn, "tarn_api_init", u32)
    _proto(tarn, "tarn_api_close", None)
    _proto(tarn, "tarn_register", u32, u32)
    _proto(tarn, "tarn_deregister", u32)
    _proto(tarn, "tarn_dispatch", c_int32, c_void_p)
    _proto(tarn, "tarn_cache_is_enabled", u32)
    _proto(tarn, "tarn_enable_cache_mode", u32, u32)
    _proto(tarn, "tarn_disable_cache_mode", u32)
    _proto(tarn, "tarn_get_as_format", u32)
    _proto(tarn, "tarn_track_as_format", u32)
    _proto(tarn, "tarn_refresh_as_format_info", u32)
    _proto(tarn, "tarn_state2str", c_char_p, u32)
    _proto(tarn, "tarn_reason2str", c_char_p, u32)
    _proto(tarn, "tarn_af_ix2str", c_char_p, u32)

    # ---- libtarn: Tarn queries --------------------------------------------------

    _proto(tarn, "tarn_get_context_id", u32, c_char_p)
    _proto(tarn, "tarn_get_context_info", u32, u32, POINTER(S.ContextInfo))
    _proto(tarn, "tarn_get_context_name", c_char_p, u32, c_char_p)
    _proto(tarn, "tarn_get_next_context_info", u32, u32, POINTER(S.ContextInfo))
    _proto(tarn, "tarn_get_table_id", u32, u32, u32, c_char_p)
    _proto(tarn, "tarn_context_get_table_id", u32, c_char_p, u32, c_char_p)
    _proto(tarn, "tarn_if_get_table_id", u32, u32, u32, c_char_p)
    _proto(tarn, "tarn_get_table_info", u32, u32, POINTER(S.TableInfo))
    _proto(tarn, "tarn_get_vrf_name_table_name", u32, u32, c_char_p, c_char_p)
    _proto(tarn, "tarn_if_get_context_info", u32, u32, POINTER(S.IfContextInfo))
    _proto(tarn, "tarn_is_if_cli_ready", u32, u32)
    _proto(tarn, "tarn_is_if_usable", u32, u32)
    _proto(tarn, "tarn_get_next_if_context_info", u32, u32, c_char_p,
           POINTER(S.IfContextInfo))
    _proto(tarn, "tarn_get_rt_limits_info", u32, u32, POINTER(S.RtLimits))
    _proto(tarn, "tarn_get_if_soo_info", u32, u32, POINTER(S.SooInfo))
    _proto(tarn, "tarn_get_context_vpnid", u32, c_char_p, POINTER(S.VpnIdInfo))
    _proto(tarn, "tarn_send_protocol_config_change_msg", u32, u32, c_char_p, u32,
           c_char_p, c_uint16, p_u32)
    _proto(tarn, "tarn_as_format_to_tlv", u32, POINTER(S.AsFormat),
           POINTER(c_void_p), p_u32, u32, p_u32, u32)

    # ---- libtarn: Gyre ------------------------------------------------------------

    _proto(tarn, "gyre_api_init", u32)
    _proto(tarn, "gyre_register", u32, u32)
    _proto(tarn, "gyre_deregister", u32, u32)
    _proto(tarn, "gyre_api_close", None)
    _proto(tarn, "gyre_enable_cache_mode", u32, POINTER(S.GyreCacheAttr))
    _proto(tarn, "gyre_disable_cache_mode", u32)
    _proto(tarn, "gyre_ftag_converge", u32)
    _proto(tarn, "gyre_ftag_stale", u32, u32)
    _proto(tarn, "gyre_l2_tpg_name2id", u32, c_char_p)
    _proto(tarn, "gyre_ftag_reason2str", c_char_p, u32)
    _proto(tarn, "gyre_get_ftag_l2_tpg", u32, u16)
    _proto(tarn, "gyre_get_vlan_l2_tpg", u32, u32)
    _proto(tarn, "gyre_get_l2_tpg_ftag", u32, u32, u16, p_u16)
    _proto(tarn, "gyre_get_l2_tpg_unicast_ftag", u32, u32, p_u16)
    _proto(tarn, "gyre_get_ftag_vlans", u32, u16, POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_unicast_ftag_by_vlan", u32, u32, p_u16)
    _proto(tarn, "gyre_get_vlan_ftag", u32, u32, u16, p_u16)
    _proto(tarn, "gyre_get_first_ftag_by_filter", u32, u32, u32, p_u16)
    _proto(tarn, "gyre_get_next_ftag_by_filter", u32, u32, u32, p_u16)
    _proto(tarn, "gyre_get_l2_tpg_first_ftag", u32, u32, POINTER(S.FtagInfo))
    _proto(tarn, "gyre_get_l2_tpg_next_ftag", u32, u32, POINTER(S.FtagInfo))
    _proto(tarn, "gyre_get_if_act_vlans", u32, u32, POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_if_cfg_vlans", u32, u32, POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_if_act_vlans_iod", u32, u32, POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_if_cfg_vlans_iod", u32, u32, POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_l2_tpg_act_vlans_by_name", u32, c_char_p,
           POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_l2_tpg_cfg_vlans_by_name", u32, c_char_p,
           POINTER(S.VlanBitmap))
    _proto(tarn, "gyre_get_first_l2_tpg", u32, POINTER(S.TableInfo))
    _proto(tarn, "gyre_get_next_l2_tpg", u32, POINTER(S.TableInfo))
    _proto(tarn, "gyre_get_next_if_table_info", u32, u32, u32, POINTER(S.TableInfo))
    _proto(tarn, "gyre_get_if_l2_tpg_info", u32, u32, c_char_p, POINTER(S.TableInfo))
    _proto(tarn, "gyre_vlans2str", c_char_p, c_void_p)
    _proto(tarn, "gyre_ftag2str", c_char_p, c_void_p)
    _proto(tarn, "gyre_client_dbg_print_cache", u32, u32, u32, u32)


def _load_all() -> None:
    with _load_lock:
        g = globals()
        if "tarn_cache" in g:
            return
        h, t = _loader.load_pair()
        _prototype(h, t)
        c = ctypes.CDLL(None, use_errno=True)
        _proto(c, "free", None, c_void_p)
        _proto(c, "fflush", c_int, c_void_p)
        g["libc"] = c
        g["host"] = h
        g["tarn"] = t
        g["tarn_clt"] = POINTER(S.Client).in_dll(t, "tarn_clt")
        # Rendered lines are kept in memory, so that a failure's exception
        # carries its report.
        h.tarnhost_capture(1)
        g["tarn_cache"] = S.TarnCache.in_dll(t, "tarn_cache")


def __getattr__(name: str) -> Any:
    if name in ("host", "tarn", "libc", "tarn_clt", "tarn_cache"):
        _load_all()
        return globals()[name]
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def library_path(lib: ctypes.CDLL) -> Optional[Path]:
    """The file a loaded library came from."""
    return _loader.loaded_path(lib)


def tarnctl_path() -> str:
    """tarnctl: ``$TARNCTL``, beside the libraries, or on ``PATH``."""
    given = os.environ.get(TARNCTL_ENV)
    if given:
        return given
    here = library_path(host)
    if here is not None:
        for guess in (here.parent / "tools" / "tarnctl",
                      here.parent.parent / "bin" / "tarnctl"):
            if guess.is_file() and os.access(guess, os.X_OK):
                return str(guess)
    found = shutil.which("tarnctl")
    if found:
        return found
    raise FileNotFoundError(
        f"tarn: tarnctl not found beside {here or 'the libraries'} nor on "
        f"PATH; set {TARNCTL_ENV} to its path")


def text(raw: Optional[bytes]) -> str:
    return "" if raw is None else raw.decode("utf-8", errors="replace")


__all__ = ["host", "tarn", "libc", "tarnctl_path", "library_path"]
