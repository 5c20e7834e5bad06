#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets: fuzz/corpus/fuzz_reply and fuzz/corpus/fuzz_address.

fuzz_reply seeds follow the input layout described at the top of fuzz_reply.cpp and carry
real ADS replies as literal bytes: the AddDeviceNotification answer of 46 bytes (and a
longer one), Read answers of several lengths, the Write answer of 42 bytes, ADS error
answers and a 1024-byte "full buffer". fuzz_address seeds are address texts and
configuration strings.

Usage: python3 fuzz/make_corpus.py   (rewrites the corpus folders' seed files)
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))

PLC_NET_ID = bytes([127, 0, 0, 1, 1, 1])
PANEL_NET_ID = bytes([10, 0, 0, 5, 1, 1])


def ams_reply(command, data, invoke=0, source_port=851, target_port=0x8147):
    """An answer of the PLC: AMS/TCP header, AMS header (response flags 5), then data."""
    header = PANEL_NET_ID + struct.pack("<H", target_port) + PLC_NET_ID + struct.pack("<H", source_port)
    header += struct.pack("<HHIII", command, 5, len(data), 0, invoke)
    frame = header + data
    return struct.pack("<HI", 0, len(frame)) + frame


def handshake_reply(extra=0):
    return ams_reply(6, struct.pack("<II", 0, 0x1234) + bytes(extra), invoke=7, source_port=100,
                     target_port=0x80BB)


def read_reply(values):
    return ams_reply(2, struct.pack("<II", 0, len(values)) + bytes(values))


def write_reply(result=0):
    return ams_reply(3, struct.pack("<I", result))


def read_error_reply(result=0x701, with_length=True):
    return ams_reply(2, struct.pack("<II", result, 0) if with_length else struct.pack("<I", result))


# ---------------------------------------------------------------- fuzz_reply input pieces

def header(retries=3, gap=64, flags=0, keys=(), recipes=()):
    out = bytes([retries - 1, gap, flags, len(keys), len(recipes), 0, 0, 0])
    for k in keys:
        out += k
    for r in recipes:
        out += r
    return out


def key(reg, key_no, raw, length_byte):
    """reg 0..5 (I_bit, Q_bit, M_bit, I_W, Q_W, M_W); words: address raw, 1 + length_byte % 64
    words; bits: address raw * 8 + (length_byte & 7), 1 + (length_byte >> 3) bits."""
    return bytes([reg, key_no]) + struct.pack("<H", raw) + bytes([length_byte])


def recipe(reg, key_no, raw, length_byte, index_div8):
    return bytes([reg, key_no]) + struct.pack("<H", raw) + bytes([length_byte, index_div8])


def poll_literal(reply):
    return bytes([0, 0]) + struct.pack("<H", len(reply)) + reply


def poll_well_formed(data=b""):
    return bytes([1, 1]) + data


def poll_timeout():
    return bytes([3])


def write_words(reg, key_no, address, values):
    count = len(values) // 2
    return bytes([4, reg - 3, key_no]) + struct.pack("<H", address) + bytes([count - 1]) + bytes(values)


def write_bits(reg, key_no, bit_address, bits):
    return (bytes([5, reg, key_no]) + struct.pack("<H", bit_address >> 3) +
            bytes([((len(bits) - 1) << 3) | (bit_address & 7)]) + bytes(bits))


def condition_read(reg, key_no, raw, length_byte, kind=1):
    return bytes([6, reg, key_no]) + struct.pack("<H", raw) + bytes([length_byte, kind])


def recipe_flags(write=0, read=0):
    return bytes([7, write | (read << 2)])


# Screen: "M_W" 10, two words (bytes 10..13), and "M_bit" 99 (byte 12, bit 3): one block of 4 bytes.
SCREEN = [key(5, 0, 10, 1), key(2, 0, 12, 3)]


def reply_seeds():
    seeds = {}
    seeds["handshake_46"] = header(keys=SCREEN) + poll_literal(handshake_reply())
    seeds["handshake_60"] = header(keys=SCREEN) + poll_literal(handshake_reply(14))
    seeds["handshake_1024"] = header(keys=SCREEN) + poll_literal(handshake_reply(1024 - 46)) + \
        poll_literal(handshake_reply())
    seeds["read_50"] = header(keys=SCREEN) + poll_literal(handshake_reply()) + \
        poll_literal(read_reply([0x34, 0x12, 0x08, 0x00])) + poll_literal(read_reply([0x35, 0x12, 0x00, 0x00]))
    seeds["read_49_51"] = header(keys=SCREEN) + poll_literal(handshake_reply()) + \
        poll_literal(read_reply([1, 2, 3])) + poll_literal(read_reply([1, 2, 3, 4, 5])) + \
        poll_literal(read_reply([1, 2, 3, 4]))
    seeds["read_128"] = header(keys=[key(5, 1, 0, 63)]) + poll_literal(handshake_reply()) + \
        poll_literal(read_reply(list(range(128))))
    seeds["write_42"] = header(keys=SCREEN) + poll_literal(handshake_reply()) + \
        write_words(5, 0, 10, [0x34, 0x12]) + poll_literal(write_reply()) + \
        poll_literal(read_reply([0x34, 0x12, 0, 0]))
    seeds["bit_write"] = header(keys=SCREEN) + poll_literal(handshake_reply()) + \
        write_bits(2, 0, 83, [1]) + poll_literal(read_reply([0xF0])) + poll_literal(write_reply())
    seeds["ads_error"] = header(retries=3, keys=SCREEN) + poll_literal(handshake_reply()) + \
        poll_literal(read_error_reply()) + poll_literal(read_error_reply(0x702, False)) + \
        poll_literal(read_error_reply(0x705))
    seeds["write_error"] = header(retries=2, keys=SCREEN) + poll_literal(handshake_reply()) + \
        write_words(5, 0, 10, [0x01, 0x02]) + poll_literal(read_error_reply(0x701, False)[:41]) + \
        poll_literal(read_error_reply(0x701))
    seeds["condition_read"] = header(keys=SCREEN) + poll_literal(handshake_reply()) + \
        condition_read(4, 0, 100, 1) + poll_literal(read_reply([9, 8, 7, 6]))
    seeds["recipe"] = header(keys=SCREEN, recipes=[recipe(5, 0, 0, 1, 0), recipe(5, 0, 4, 1, 1)]) + \
        poll_literal(handshake_reply()) + recipe_flags(write=1) + poll_literal(write_reply()) + \
        recipe_flags(read=1) + poll_literal(read_reply([1, 2, 3, 4, 5, 6, 7, 8]))
    seeds["well_formed_mix"] = header(gap=4, keys=SCREEN + [key(4, 0, 200, 0), key(0, 2, 3, 9)]) + \
        poll_well_formed() + poll_well_formed(bytes(range(40))) + poll_timeout() + poll_well_formed() + \
        write_words(3, 0, 40, [1, 2, 3, 4]) + poll_well_formed() + poll_well_formed()
    return seeds


# ---------------------------------------------------------------- fuzz_address inputs

def address_input(selector, number, *texts):
    return bytes([selector]) + struct.pack("<i", number) + b"\0".join(t.encode("latin-1") for t in texts)


def address_seeds():
    seeds = {}
    for name, text in [("bit_10_3", "10.3"), ("bit_max", "65535.7"), ("word_65534", "65534"),
                       ("word_65535", "65535"), ("bit_10_9", "10.9"), ("two_points", "1.2.3"),
                       ("word_letter", "12a")]:
        seeds["text_" + name] = text.encode()
    # checkAddresses: selector % 8 in 0..2, register pick in bits 4..6.
    seeds["check_bit"] = address_input(0x20, 1 | (1 << 16), "10.3")
    seeds["check_word"] = address_input(0x50, 1, "65534")
    seeds["check_unknown"] = address_input(0x60, 1, "5", "X_W")
    # conversions: selector % 8 in 3..4.
    seeds["a2i_hex"] = address_input(0x53, 2, "1F", "HHHH")
    seeds["a2i_bits"] = address_input(0x23, 83, "10.3", "DDDDD.D")
    # settings and initialisation strings.
    seeds["settings"] = address_input(0x05, 0, "2_0,192.168.1.100.1.1,801")
    seeds["settings_labels"] = address_input(0x05, 0, "2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801")
    seeds["init"] = address_input(0x06, 0, "1#0#0#3#64")
    seeds["init_words"] = address_input(0x06, 0, "a#b#c#d#e#f")
    # multiCopy: selector % 8 == 7, count = selector % 65.
    seeds["multicopy_words"] = address_input(0x57, 10, "", "\xff")
    seeds["multicopy_bits"] = address_input(0x27, 6, "", "\xff")
    seeds["multicopy_top"] = address_input(0x47, 65534, "", "\x01")
    return seeds


def write(folder, seeds):
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, "seed_" + name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    write(os.path.join(HERE, "corpus", "fuzz_reply"), reply_seeds())
    write(os.path.join(HERE, "corpus", "fuzz_address"), address_seeds())
    print("seeds written")
