#!/usr/bin/env python3
"""relay.py --listen PORT COMMAND [ARGUMENT]...
relay.py --serve DESCRIPTOR SOCKET_PORT

Lets a browser on this machine reach a server in a network of its own. With --listen it opens 127.0.0.1:PORT, or the next
port that is free, and runs the command with RELAY_DESCRIPTOR and RELAY_PORT in its environment; a relay that the command
starts with --serve inside the other network takes the connections of that descriptor, which stays with the network that
it was opened in, and passes them on to 127.0.0.1:SOCKET_PORT there. Nothing but the loopback is ever listened on.
"""
import os
import selectors
import socket
import sys
import threading

TRIES = 20
CONNECTIONS = 64


def listen(port):
    for candidate in range(port, port + TRIES):
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            listener.bind(("127.0.0.1", candidate))
            listener.listen(CONNECTIONS)
            return listener
        except OSError:
            listener.close()
    sys.exit(f"relay.py: no free port from {port} to {port + TRIES - 1}")


def copy(client, port, slots):
    try:
        with client, socket.create_connection(("127.0.0.1", port), timeout=5) as server:
            server.settimeout(None)
            selector = selectors.DefaultSelector()
            selector.register(client, selectors.EVENT_READ, server)
            selector.register(server, selectors.EVENT_READ, client)
            while True:
                for key, _ in selector.select():
                    data = key.fileobj.recv(65536)
                    if not data:
                        return
                    key.data.sendall(data)
    except OSError:
        pass
    finally:
        slots.release()


def serve(descriptor, port):
    listener = socket.socket(fileno=descriptor)
    slots = threading.BoundedSemaphore(CONNECTIONS)
    while True:
        client, _ = listener.accept()
        slots.acquire()
        threading.Thread(target=copy, args=(client, port, slots), daemon=True).start()


if sys.argv[1] == "--serve":
    serve(int(sys.argv[2]), int(sys.argv[3]))
else:
    opened = listen(int(sys.argv[2]))
    os.set_inheritable(opened.fileno(), True)
    os.environ["RELAY_DESCRIPTOR"] = str(opened.fileno())
    os.environ["RELAY_PORT"] = str(opened.getsockname()[1])
    os.execvp(sys.argv[3], sys.argv[3:])
