"""What nimbus-web's picture is held against: the plain way into a browser. FFmpeg repacks the
stream, a fragment for each picture; the page fetches it into Media Source Extensions and plays a
little faster while it is behind."""

import http.server
import subprocess
import threading

PAGE = b"""<!DOCTYPE html><video muted playsinline></video><script>
const video = document.querySelector("video");
const source = new MediaSource();
video.src = URL.createObjectURL(source);
source.onsourceopen = async () => {
  const buffer = source.addSourceBuffer('video/mp4; codecs="avc1.64001e"');
  const reader = (await fetch("/stream")).body.getReader();
  for (;;) {
    const { value, done } = await reader.read();
    if (done) return;
    buffer.appendBuffer(value);
    await new Promise((resolve) => (buffer.onupdateend = resolve));
    if (!buffer.buffered.length) continue;
    const end = buffer.buffered.end(0);
    if (video.paused) { video.currentTime = end; video.play(); }
    video.playbackRate = end - video.currentTime > 0.1 ? 1.1 : 1;
  }
};
</script>"""


class Remux:
    """Serves the page and one stream, which take() is fed with."""

    def __init__(self, host, port):
        self.address = f"http://{host}:{port}/"
        self._muxer = subprocess.Popen(
            ["ffmpeg", "-v", "error", "-fflags", "nobuffer", "-probesize", "32", "-framerate", "25",
             "-f", "h264", "-i", "-", "-c", "copy", "-flush_packets", "1", "-movflags",
             "+frag_every_frame+empty_moov+default_base_moof", "-f", "mp4", "-"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        muxer = self._muxer

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):  # noqa: N802
                self.send_response(200)
                self.send_header("Content-Type",
                                 "text/html" if self.path == "/" else "video/mp4")
                self.end_headers()
                if self.path == "/":
                    self.wfile.write(PAGE)
                elif self.path == "/stream":
                    while data := muxer.stdout.read1(65536):
                        self.wfile.write(data)

            def log_message(self, *_):
                pass

        self._server = http.server.ThreadingHTTPServer((host, port), Handler)
        self._server.daemon_threads = True
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def take(self, data):
        self._muxer.stdin.write(data)
        self._muxer.stdin.flush()

    def close(self):
        self._muxer.kill()
        self._muxer.wait()
        self._server.shutdown()
