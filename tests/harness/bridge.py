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
        self._repeater = None

    def send(self, data):
        self.socket.sendto(data, ("127.0.0.1", self.port))

    def keep_sending(self, data, period):
        """Sends the datagram again and again, from a thread of its own, until close()."""

        def repeat():
            while not self._stop.is_set():
                self.send(data)
                self._stop.wait(period)

        self._repeater = threading.Thread(target=repeat, daemon=True)
        self._repeater.start()

    def receive(self, seconds=5):
        self.socket.settimeout(limit(seconds))
        return self.socket.recv(65536)

    def close(self):
        self._stop.set()
        if self._repeater is not None:
            self._repeater.join()
        self.socket.close()
