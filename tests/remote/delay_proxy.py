#!/usr/bin/env python3
"""A TCP proxy that adds a delay to every connection, for the remote store's
benchmarks: a server on loopback made to answer like one across a network.

Usage: delay_proxy.py PORT TARGET_PORT DELAY_MS

Each connection accepted on 127.0.0.1:PORT waits DELAY_MS milliseconds,
then is joined to 127.0.0.1:TARGET_PORT, bytes passed both ways until
either side closes. The store's client opens one connection per request,
so every request costs DELAY_MS more. "ready" is printed once the port
listens.
"""
import socket
import sys
import threading
import time


def pump(source, sink):
    try:
        while True:
            data = source.recv(65536)
            if not data:
                break
            sink.sendall(data)
    except OSError:
        pass
    finally:
        try:
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass


def serve(client, target_port, delay):
    time.sleep(delay)
    try:
        server = socket.create_connection(("127.0.0.1", target_port))
    except OSError:
        client.close()
        return
    back = threading.Thread(target=pump, args=(server, client), daemon=True)
    back.start()
    pump(client, server)
    back.join()
    client.close()
    server.close()


def main():
    port, target_port, delay_ms = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", port))
    listener.listen(128)
    print("ready", flush=True)
    while True:
        client, _ = listener.accept()
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        threading.Thread(target=serve, args=(client, target_port, delay_ms / 1000.0), daemon=True).start()


if __name__ == "__main__":
    main()
