#!/usr/bin/env python3
"""Turns tshark's reading of captured DHCP client messages into the parsers' test data.

    capture-dhcp-render.py FIELDS_JSON DISSECTION_TXT CLIENTS CAPTURES_JSONL CORPUS_DIR

FIELDS_JSON is `tshark -T json -e ...` of the client messages, DISSECTION_TXT their
`tshark -O dhcp,dhcpv6` text, CLIENTS lines of "MAC label". Writes CAPTURES_JSONL, one packet a
line: its name, version, frame source MAC, UDP datagram as hex, tshark's reading of the fields
the parsers extract and tshark's dissection. Seeds CORPUS_DIR/dhcpv4, CORPUS_DIR/dhcpv6 (the
DHCP message without its UDP header) and CORPUS_DIR/nkex_handlers (the bus event) with them.
"""

import base64
import hashlib
import json
import os
import re
import sys

# BOOTP header lines that say nothing about the client; left out of the dissection.
DULL = re.compile(
    r"^(Hops|Transaction ID|Seconds elapsed|Bootp flags|\.|Client IP address|Your \(client\)|"
    r"Next server|Relay agent|Client hardware address padding|Server host name|Boot file name|"
    r"Magic cookie|Length:|Option End|Hardware address length|Padding|[01.]{4} )")

# The handlers' fuzz input: one byte naming the event, then the message data.
SIFTER_DHCP_PAYLOAD = b"\x01"


def field(layers, name, join=None):
    values = layers.get(name, [])
    if join is not None:
        return join.join(values)
    return values[0] if values else ""


def dissections(text):
    """Frame number -> the DHCP or DHCPv6 part of tshark's verbose output, condensed."""
    frames = {}
    number = None
    inside = False
    for line in text.splitlines():
        m = re.match(r"^Frame (\d+):", line)
        if m:
            number = int(m.group(1))
            frames[number] = []
            inside = False
            continue
        if line.startswith("Dynamic Host Configuration Protocol") or line == "DHCPv6":
            inside = True
        if inside and line.strip() and not DULL.match(line.strip()):
            frames[number].append(line.rstrip())
    return frames


def udp_bytes(layers):
    header = b"".join(int(field(layers, name), 0).to_bytes(2, "big")
                      for name in ("udp.srcport", "udp.dstport", "udp.length", "udp.checksum"))
    return header + bytes.fromhex(field(layers, "udp.payload").replace(":", ""))


def v6_vendor_class(layers):
    enterprise = field(layers, "dhcpv6.vendorclass.enterprise")
    if not enterprise:
        return ""
    return enterprise + "; " + field(layers, "dhcpv6.vendorclass.data", " ")


def write_seed(directory, data):
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, hashlib.sha1(data).hexdigest()), "wb") as out:
        out.write(data)


def main(fields_json, dissection_txt, clients_file, captures, corpus):
    with open(fields_json) as f:
        packets = [p["_source"]["layers"] for p in json.load(f)]
    with open(dissection_txt) as f:
        comments = dissections(f.read())
    with open(clients_file) as f:
        clients = dict(line.rstrip("\n").split(" ", 1) for line in f if line.strip())

    entries = []
    for layers in packets:
        number = int(field(layers, "frame.number"))
        source = field(layers, "eth.src")
        v6 = field(layers, "udp.dstport") == "547"
        udp = udp_bytes(layers)
        lines = comments.get(number, [])
        message = lines[0].strip() if lines else ""
        if v6:
            kind = next((l.split(":", 1)[1].strip().split(" (")[0] for l in lines
                         if l.strip().startswith("Message type:")), "")
            option_list = field(layers, "dhcpv6.requested_option_code", " ")
            vendor_class = v6_vendor_class(layers)
            hostname = field(layers, "dhcpv6.client_domain").split(".")[0]
            client_mac = (field(layers, "dhcpv6.duidll.link_layer_addr")
                          or field(layers, "dhcpv6.duidllt.link_layer_addr"))
        else:
            kind = message[message.find("(") + 1:-1] if "(" in message else ""
            option_list = field(layers, "dhcp.option.request_list_item", " ")
            vendor_class = field(layers, "dhcp.option.vendor_class_id")
            hostname = field(layers, "dhcp.option.hostname").split(".")[0]
            client_mac = field(layers, "dhcp.hw.mac_addr")
        label = clients.get(source, "unknown client")
        entries.append({"name": "%s %s" % (label, kind), "v6": v6, "source_mac": source,
                        "udp": udp.hex(), "message_type": kind, "option_list": option_list,
                        "vendor_class": vendor_class, "hostname": hostname,
                        "client_mac": client_mac, "dissection": lines})

        dhcp = udp[8:]
        write_seed(os.path.join(corpus, "dhcpv6" if v6 else "dhcpv4"), dhcp)
        event = {"netif": "br-lan", "source_mac": source,
                 "raw_payload": base64.b64encode(udp).decode(), "version": 6 if v6 else 4}
        write_seed(os.path.join(corpus, "nkex_handlers"),
                   SIFTER_DHCP_PAYLOAD + json.dumps(event).encode())

    with open(captures, "w") as out:
        for entry in entries:
            out.write(json.dumps(entry, ensure_ascii=False) + "\n")


if __name__ == "__main__":
    if len(sys.argv) != 6:
        sys.exit(__doc__)
    main(*sys.argv[1:])
