#!/usr/bin/env python3
"""Makes the seed corpora of the driver interface's harnesses (fuzz_nflog,
fuzz_capture_packets, fuzz_capture_file, fuzz_ssl_frames) from the packets of
examples/capture/sample.pcapng and the captures of tests/data. Needs editcap
(from the tshark package). Run from the source folder:
    python3 fuzz/driver_seeds.py
Seeds that replay fixed findings are named finding-* and left alone."""
import os
import shutil
import struct
import subprocess
import tempfile

CORPUS = "fuzz/corpus/"
SAMPLE = "examples/capture/sample.pcapng"


def write(harness, name, data):
    os.makedirs(CORPUS + harness, exist_ok=True)
    with open(CORPUS + harness + "/" + name, "wb") as out:
        out.write(data)


def frames(numbers):
    """The Ethernet frames of the sample with the given numbers (1-based)."""
    with tempfile.TemporaryDirectory() as scratch:
        path = os.path.join(scratch, "part.pcap")
        selection = [str(number) for number in numbers]
        subprocess.run(["editcap", "-F", "pcap", "-r", SAMPLE, path] + selection, check=True)
        data = open(path, "rb").read()
    result, offset = [], 24
    while offset + 16 <= len(data):
        length = struct.unpack_from("<I", data, offset + 8)[0]
        result.append(data[offset + 16:offset + 16 + length])
        offset += 16 + length
    return result


def relink(frame, link):
    """An Ethernet frame as link type 0 (Ethernet), 1 (SLL), 2 (SLL2), 3 (raw IP)."""
    proto, address, packet = frame[12:14], frame[6:12], frame[14:]
    if link == 0:
        return frame
    if link == 1:
        return struct.pack(">HHH", 0, 1, 6) + address + b"\0\0" + proto + packet
    if link == 2:
        return proto + b"\0\0" + struct.pack(">IHBB", 2, 1, 0, 6) + address + b"\0\0" + packet
    return packet


def packets_seed(link, numbers):
    seed = bytes([link])
    for frame in frames(numbers):
        frame = relink(frame, link)
        seed += struct.pack("<H", len(frame)) + frame
    return seed


def attribute(kind, payload):
    data = struct.pack("<HH", 4 + len(payload), kind) + payload
    return data + b"\0" * (-len(data) % 4)


def nflog(packet, prefix=b"vx:2:101:12", hook=1, stamp=True, ethernet=True, sequence=0):
    """One NFLOG packet message as the kernel sends it."""
    body = struct.pack("<BBH", 2, 0, 0)  # nfgenmsg: AF_INET, version 0, group 0
    body += attribute(1, struct.pack(">HBB", 0x0800, hook, 0))  # NFULA_PACKET_HDR
    body += attribute(10, prefix + b"\0")  # NFULA_PREFIX
    body += attribute(5 if hook == 3 else 4, struct.pack(">I", 3))  # out or in device
    if stamp:
        body += attribute(3, struct.pack(">QQ", 1700000000, 250000))  # NFULA_TIMESTAMP
    if ethernet:
        body += attribute(15, struct.pack(">H", 1))  # NFULA_HWTYPE: Ethernet
        body += attribute(16, bytes(range(1, 13)) + b"\x08\x00")  # NFULA_HWHEADER
    body += attribute(12, struct.pack(">I", sequence))  # NFULA_SEQ
    body += attribute(9, packet)  # NFULA_PAYLOAD
    return struct.pack("<IHHII", 16 + len(body), 0x0400, 0, 0, 0) + body


def frame(payload):
    return struct.pack("<I", len(payload)) + payload


def main():
    # Link-layer packets: the TLS session with its RSA key exchange, an HTTP
    # session, the probes, IPv6, UDP and ICMP, each link type once or more.
    tls = list(range(24, 41))
    http = list(range(8, 20))
    probes = list(range(48, 75))
    mixed = [1, 2, 3, 4, 5, 6, 7, 20, 21, 22, 23, 43, 44, 45, 46, 47, 63, 72]
    scan = list(range(2095, 2101)) + list(range(2922, 2935))
    write("fuzz_capture_packets", "seed-tls-ethernet", packets_seed(0, tls))
    write("fuzz_capture_packets", "seed-tls-raw", packets_seed(3, tls))
    write("fuzz_capture_packets", "seed-http-sll", packets_seed(1, http))
    write("fuzz_capture_packets", "seed-probes-ethernet", packets_seed(0, probes))
    write("fuzz_capture_packets", "seed-mixed-sll2", packets_seed(2, mixed))
    write("fuzz_capture_packets", "seed-mixed-ethernet", packets_seed(0, mixed))
    write("fuzz_capture_packets", "seed-scan-raw", packets_seed(3, scan))

    # Whole files: the test captures and a pcapng part of the sample.
    for name in ("first-packets.pcap", "cut-short.pcapng", "snapped.pcap", "not-a-capture.pcap"):
        shutil.copy("tests/data/" + name, CORPUS + "fuzz_capture_file/seed-" + name)
    with tempfile.TemporaryDirectory() as scratch:
        path = os.path.join(scratch, "part.pcapng")
        subprocess.run(["editcap", "-r", SAMPLE, path, "1-12", "2922-2934"], check=True)
        write("fuzz_capture_file", "seed-sample-part.pcapng", open(path, "rb").read())

    # NFLOG messages: inbound with time stamp and Ethernet header, outbound
    # without either, IPv6, two in one read, and a prefix that is no verdict.
    packets = [relink(f, 3) for f in frames([10, 2923, 43])]
    write("fuzz_nflog", "seed-inbound", nflog(packets[0]))
    write("fuzz_nflog", "seed-outbound", nflog(packets[2], prefix=b"vx:1:0:3", hook=3,
                                               stamp=False, ethernet=False))
    write("fuzz_nflog", "seed-ipv6", nflog(packets[1], ethernet=False))
    write("fuzz_nflog", "seed-two", nflog(packets[0]) + nflog(packets[2], sequence=2))
    write("fuzz_nflog", "seed-bad-prefix", nflog(packets[0], prefix=b"vx:2:x"))

    # Socket streams: the first byte is the size of the reads.
    request = struct.pack("<II", 50, 7) + bytes(range(56)) + struct.pack("<IBB", 1, 3, 3)
    request += b"\0" * 10 + b"\x00\x30" + bytes(range(48))
    write("fuzz_ssl_frames", "seed-one", b"\0" + frame(request))
    write("fuzz_ssl_frames", "seed-two-in-small-reads", b"\x07" + frame(request) * 2)
    write("fuzz_ssl_frames", "seed-cut-short", b"\x40" + frame(request)[:-9])
    write("fuzz_ssl_frames", "seed-too-short", b"\0" + frame(request) + frame(request[:79]))
    write("fuzz_ssl_frames", "seed-too-long", b"\x03" + struct.pack("<I", 65537) + request)


main()
