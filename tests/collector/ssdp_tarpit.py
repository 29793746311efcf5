#!/usr/bin/env python3
# A hostile UPnP peer for the collector's tests: it announces two descriptions, one whose
# server never answers and one that sends 10 MiB, and keeps announcing them every second.
#   ssdp_tarpit.py OWN-IPV4
import socket
import sys
import threading
import time

ip = sys.argv[1]
held = []


def big(conn):
    try:
        conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n<root><device><friendlyName>")
        for _ in range(160):
            conn.sendall(b"x" * 65536)
    except OSError:
        pass


def serve(server):
    while True:
        conn, _ = server.accept()
        if b"/big" in conn.recv(4096):
            threading.Thread(target=big, args=(conn,), daemon=True).start()
        else:
            held.append(conn)  # read, never answered


# Listening before the first announcement.
listener = socket.socket()
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind((ip, 8080))
listener.listen(16)
threading.Thread(target=serve, args=(listener,), daemon=True).start()
notify = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
notify.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 2)
while True:
    for path in ("slow", "big"):
        notify.sendto(("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n"
                       "NT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n"
                       f"LOCATION: http://{ip}:8080/{path}.xml\r\n"
                       f"USN: uuid:tarpit-{path}::upnp:rootdevice\r\n"
                       "SERVER: Linux/6.1 UPnP/1.0 tarpit/1\r\n\r\n").encode(),
                      ("239.255.255.250", 1900))
    time.sleep(1)
