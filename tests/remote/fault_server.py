#!/usr/bin/env python3
"""A deliberately bad HTTP server for the remote store's tests.

Usage: fault_server.py PORT

The first path segment chooses what goes wrong:
  /hang/...       reads the request and never answers
  /slow/...       sends the headers, then one byte a second
  /statusNNN/...  answers with status NNN (401, 404, 405, 500 ...)
  /redirect/...   answers 302 to another server
  /truncated/...  says the whole object is coming, sends half and closes
  /garbage/...    answers 200 with bytes that are no object
  /huge/...       answers 200 with 64 MiB of zeros
  /object/...     answers 200 with the bytes last PUT to /ok/ (another name's object)
  /ok/...         takes PUTs (201), keeping the body; answers GETs with it
Anything else is 404. "ready" is printed once the port listens.
"""
import socket
import sys
import threading
import time


def read_request(conn):
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = conn.recv(65536)
        if not chunk:
            return None, b""
        data += chunk
    head, _, rest = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    method, path = lines[0].split(" ")[:2]
    length = 0
    for line in lines[1:]:
        if line.lower().startswith("content-length:"):
            length = int(line.split(":", 1)[1])
    while len(rest) < length:
        chunk = conn.recv(65536)
        if not chunk:
            break
        rest += chunk
    return (method, path), rest


def answer(conn, status, body, length=None):
    reason = {200: "OK", 201: "Created", 302: "Found", 401: "Unauthorized", 403: "Forbidden", 404: "Not Found",
              405: "Method Not Allowed", 500: "Internal Server Error", 503: "Service Unavailable"}.get(status, "Other")
    extra = "Location: http://127.0.0.1:9/elsewhere\r\n" if status == 302 else ""
    size = len(body) if length is None else length
    conn.sendall(("HTTP/1.1 %d %s\r\nContent-Length: %d\r\n%sConnection: close\r\n\r\n"
                  % (status, reason, size, extra)).encode("latin-1") + body)


stored = [b""]


def serve(conn):
    try:
        request, body = read_request(conn)
        object_bytes = stored[0]
        if request is None:
            return
        method, path = request
        mode = path.strip("/").split("/")[0]
        if mode == "hang":
            time.sleep(3600)
        elif mode == "slow":
            conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\nConnection: close\r\n\r\n")
            for _ in range(3600):
                conn.sendall(b"x")
                time.sleep(1)
        elif mode.startswith("status") and mode[6:].isdigit():
            answer(conn, int(mode[6:]), b"broken")
        elif mode == "redirect":
            answer(conn, 302, b"")
        elif mode == "truncated":
            conn.sendall(("HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n"
                          % len(object_bytes)).encode("latin-1") + object_bytes[: len(object_bytes) // 2])
        elif mode == "garbage":
            answer(conn, 200, b"<html>not an effect</html>" * 10)
        elif mode == "huge":
            conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 67108864\r\nConnection: close\r\n\r\n")
            zeros = bytes(1 << 20)
            for _ in range(64):
                conn.sendall(zeros)
        elif mode in ("object", "ok"):
            if method == "PUT" and mode == "ok":
                stored[0] = body
                answer(conn, 201, b"")
            else:
                answer(conn, 200, object_bytes)
        else:
            answer(conn, 404, b"")
    except OSError:
        pass
    finally:
        conn.close()


def main():
    port = int(sys.argv[1])
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", port))
    listener.listen(64)
    print("ready", flush=True)
    while True:
        conn, _ = listener.accept()
        threading.Thread(target=serve, args=(conn,), daemon=True).start()


if __name__ == "__main__":
    main()
