"""Finding and loading the C libraries, and the C prototypes used here.

libtarn and libtarnhost are found in this order:

1. the directory named by ``TARN_LIBDIR`` (a build tree such as
   ``build/x86_64`` or an installed ``PREFIX/lib``);
2. when the package is imported from the source tree (python/tarn), that
   tree's ``build/x86_64``;
3. the dynamic loader's own search (``ldconfig``, ``LD_LIBRARY_PATH``).

libtarnhost is loaded first and globally, so that libtarn's dependency on it
is met by the very same copy wherever libtarn itself was found.
"""

from __future__ import annotations

import ctypes
import os
import shutil
from ctypes import (POINTER, c_char_p, c_int, c_int32, c_size_t,
                    c_uint8, c_uint16, c_uint32, c_void_p)
from pathlib import Path
from typing import Optional

from . import _structs as S

LIBDIR_ENV = "TARN_LIBDIR"
TARNCTL_ENV = "TARNCTL"

_HOST_SONAME = "libtarnhost.so.0"
_TARN_SONAME = "libtarn.so.0"

u32 = c_uint32
u16 = c_uint16
p_u16 = POINTER(c_uint16)
p_u32 = POINTER(c_uint32)


def _source_tree_build() -> Optional[Path]:
    """build/x86_64 of the source tree this package sits in, if any."""
    tree = Path(__file__).resolve().parent.parent.parent
    if (tree / "CMakeLists.txt").is_file() and (tree / "python" / "tarn").is_dir():
        return tree / "build" / "x86_64"
    return None


def _candidates(soname: str) -> list[str]:
    out = []
    libdir = os.environ.get(LIBDIR_ENV)
    if libdir:
        out.append(str(Path(libdir) / soname))
    else:
        build = _source_tree_build()
        if build is not None and (build / soname).exists():
            out.append(str(build / soname))
    out.append(soname)
    return out


def _load(soname: str) -> ctypes.CDLL:
    errors = []
    for name in _candidates(soname):
        if os.sep in name and not os.path.exists(name):
            errors.append(f"{name}: no such file")
            continue
        try:
            return ctypes.CDLL(name, mode=ctypes.RTLD_GLOBAL, use_errno=True)
        except OSError as exc:
            errors.append(str(exc))
    raise ImportError(
        f"tarn: cannot load {soname} ({'; '.join(errors)}); install libtarn "
        f"(cmake --install) or point {LIBDIR_ENV} at the directory that "
        f"holds it, for example build/x86_64")


def _proto(lib: ctypes.CDLL, name: str, restype, *argtypes) -> None:
    fn = getattr(lib, name)
    fn.restype = restype
    fn.argtypes = list(argtypes)


host = _load(_HOST_SONAME)
tarn = _load(_TARN_SONAME)

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
try:
    _proto(host, "tarnhost_bus_fd", c_int, u32)
    HAVE_BUS_FD = True
except AttributeError:  # an older host without a pollable descriptor
    HAVE_BUS_FD = False

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

# ---- the C library's own ------------------------------------------------------

libc = ctypes.CDLL(None, use_errno=True)
_proto(libc, "free", None, c_void_p)
_proto(libc, "fflush", c_int, c_void_p)

# ---- exported data -------------------------------------------------------------

tarn_clt = POINTER(S.Client).in_dll(tarn, "tarn_clt")
tarn_cache = S.TarnCache.in_dll(tarn, "tarn_cache")


def library_path(lib: ctypes.CDLL) -> Optional[Path]:
    """The file a loaded library came from: the path it was loaded by, or
    the one the dynamic loader chose (read from the process's maps)."""
    if os.sep in lib._name:
        return Path(lib._name)
    stem = lib._name.split(".so")[0] + ".so"
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            for line in maps:
                path = line.rstrip("\n").split(None, 5)[-1]
                if path.startswith("/") and os.path.basename(path).startswith(stem):
                    return Path(path)
    except OSError:
        pass
    return None


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


def name_arg(name: Optional[str]) -> Optional[bytes]:
    return None if name is None else name.encode("utf-8")


__all__ = ["host", "tarn", "libc", "tarnctl_path", "library_path",
           "HAVE_BUS_FD"]
