"""VLAN and ftag sets: bitmaps, range text, and agreement with the library's
own rendering on random and hostile sets."""

from __future__ import annotations

import random

import pytest

from tarn import vlans


def test_bitmap_bit_order_is_most_significant_first():
    bmp = vlans.vlan_bitmap({0, 9, 4095})
    assert bmp.len == 512
    assert bmp.bits[0] == 0x80 and bmp.bits[1] == 0x40 and bmp.bits[511] == 0x01
    assert vlans.from_bits(bmp.bits, 512) == {0, 9, 4095}
    ft = vlans.ftag_bitmap({1023})
    assert ft.len == 128 and ft.bits[127] == 0x01


@pytest.mark.parametrize("bad", [-1, 4096, 1.5, True, "7"])
def test_bitmap_refuses_what_is_no_vlan(bad):
    with pytest.raises(ValueError):
        vlans.vlan_bitmap({bad})


def test_range_text_both_ways():
    assert vlans.format_ranges({1, 2, 3, 5, 10, 11}) == "1-3,5,10-11"
    assert vlans.format_ranges(set()) == ""
    assert vlans.parse_ranges(" 10 - 12 ,30\t") == {10, 11, 12, 30}
    assert vlans.parse_ranges("") == set()
    assert vlans.parse_ranges("7-7") == {7}


@pytest.mark.parametrize("text, fault", [
    ("20-10", "runs backwards"), ("4096", "out of range"), ("1,,2", "not a number"),
    ("a", "not a number"), ("1-", "not a number"), ("-3", "not a number")])
def test_malformed_range_text_is_refused(text, fault):
    with pytest.raises(ValueError) as err:
        vlans.parse_ranges(text)
    assert fault in str(err.value)


def test_ftag_limit():
    assert vlans.parse_ranges("1023", limit=1023) == {1023}
    with pytest.raises(ValueError):
        vlans.parse_ranges("1024", limit=1023)


def _hostile_sets(rng: random.Random, limit: int):
    yield set()
    yield {0}
    yield {limit}
    yield set(range(limit + 1))
    yield set(range(0, limit + 1, 2))
    for _ in range(200):
        kind = rng.randrange(3)
        if kind == 0:
            yield {rng.randrange(limit + 1) for _ in range(rng.randrange(1, 40))}
        elif kind == 1:
            a = rng.randrange(limit + 1)
            yield set(range(a, min(limit, a + rng.randrange(300)) + 1))
        else:
            yield {v for v in range(limit + 1) if rng.random() < 0.3}


def test_random_sets_round_trip_and_agree_with_the_library():
    rng = random.Random(1601)
    for members in _hostile_sets(rng, vlans.MAX_VLAN):
        text = vlans.format_ranges(members)
        assert vlans.parse_ranges(text) == members
        bmp = vlans.vlan_bitmap(members)
        assert vlans.from_bits(bmp.bits, 512) == members
        lib_text = vlans.library_text(members)
        if not members:
            assert lib_text == "--"
        elif len(lib_text) < 2000:
            # The library's scratch string holds 2098 bytes; shorter texts
            # are complete and must read back as the same set.
            assert vlans.parse_ranges(lib_text) == members


def test_random_ftag_sets_agree_with_the_library():
    rng = random.Random(1023)
    for members in _hostile_sets(rng, vlans.MAX_FTAG):
        lib_text = vlans.library_ftag_text(members)
        if not members:
            assert lib_text == "--"
        elif len(lib_text) < 2000:
            assert vlans.parse_ranges(lib_text, limit=1023) == members


def test_bitmaps_become_frozensets_and_back():
    rng = random.Random(77)
    for members in _hostile_sets(rng, vlans.MAX_VLAN):
        raw = vlans.bitmap_bytes(members, 512)
        got = vlans.set_from_bitmap(raw, memo=False)
        assert type(got) is frozenset and got == members
        assert vlans.set_from_bitmap(raw) == members
        assert vlans.set_from_bitmap(raw) is vlans.set_from_bitmap(raw)
    assert vlans.set_from_bitmap(bytes(512)) == frozenset()


def test_gyre_answers_frozensets(lib):
    got = lib.gyre.topology_vlans(10)
    assert type(got) is frozenset and got == set(range(100, 200))
    assert type(lib.gyre.interface_vlans(200)) is frozenset
