"""The bridge beside the camera: what it sends to the service, and what comes back."""

import threading

from harness.timing import limit
from harness.udp import udp_socket


class Bridge:
    """One of the bridge's two senders: camera data (DATA_PORT) or video (VIDEO_PORT)."""

    def __init__(self, port, host="127.0.0.1"):
        self.port = port
        self.socket = udp_socket(host)
        self.address = self.socket.getsockname()
        self._stop = threading.Event()

    def send(self, data):
        self.socket.sendto(data, ("127.0.0.1", self.port))

    def keep_sending(self, data, period):
        """Sends the datagram again and again, from a thread of its own, until close()."""

        def repeat():
            while not self._stop.is_set():
                self.send(data)
                self._stop.wait(period)

        threading.Thread(target=repeat, daemon=True).start()

    def receive(self, seconds=5):
        self.socket.settimeout(limit(seconds))
        return self.socket.recv(65536)

    def close(self):
        self._stop.set()
        self.socket.close()
