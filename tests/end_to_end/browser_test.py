"""Movies in a browser, which plays them from a local web server and sends back its picture and sound."""

import array
import http.server
import json
import queue
import threading

import judges
import sound_test
from harness import LongEndToEndTest

PAGE = """<!doctype html><video muted autoplay src="/movie.mp4"></video><script>
const video = document.querySelector("video"), send = (what, body) => fetch("/" + what, {method: "POST", body: body});
let sent = false;
video.ontimeupdate = () => {
    if (sent || video.currentTime < 1) return;
    sent = true;
    const canvas = document.createElement("canvas");
    Object.assign(canvas, {width: video.videoWidth, height: video.videoHeight});
    canvas.getContext("2d").drawImage(video, 0, 0);
    canvas.toBlob(picture => send("picture", picture));
};
video.onerror = () => send("end", JSON.stringify({error: video.error.message}));
video.onended = () => send("end", JSON.stringify({width: video.videoWidth, height: video.videoHeight,
    duration: video.duration, time: video.currentTime, missing: video.getVideoPlaybackQuality().corruptedVideoFrames}));
(async () => {
    const bytes = await (await fetch("/movie.mp4")).arrayBuffer();
    const sound = await new OfflineAudioContext(1, 48000, 48000).decodeAudioData(bytes);
    send("sound", Int16Array.from(sound.getChannelData(0), sample => 32767 * sample));
})();
</script>"""


class Site(http.server.ThreadingHTTPServer):
    """Serves the page and one movie; stores the data that the page sends, by name."""

    def __init__(self, movie):
        self.sent = queue.Queue()
        site = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                body = {"/": PAGE.encode(), "/movie.mp4": movie}.get(self.path)
                self.send_response(200 if body else 404)
                self.send_header("Content-Type", "text/html" if self.path == "/" else "video/mp4")
                self.send_header("Content-Length", str(len(body or b"")))
                self.end_headers()
                self.wfile.write(body or b"")

            def do_POST(self):
                site.sent.put((self.path[1:], self.rfile.read(int(self.headers["Content-Length"]))))
                self.send_response(204)
                self.end_headers()

            def log_message(self, *_):
                pass

        super().__init__(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Browser(LongEndToEndTest):
    def played(self, path):
        """All that the page sends of a movie."""
        site = Site(path.read_bytes())
        browser = self.start("chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                             "--autoplay-policy=no-user-gesture-required", f"--user-data-dir={self.path('profile')}",
                             f"http://127.0.0.1:{site.server_port}/")
        try:
            found = {}
            while not {"end", "picture", "sound"} <= set(found):
                name, body = site.sent.get(timeout=60)
                found[name] = body
                if b"error" in found.get("end", b""):
                    break
            return found
        finally:
            browser.kill()
            site.shutdown()
            site.server_close()

    def test_plays_movies(self):
        # Catches a file that only forgiving players open: its codec's name, its boxes, its sound.
        self.start_display("640x480")
        self.start_screen()
        for options in ((), ("--fragmented",)):
            with self.subTest(options):
                path = self.path(f"movie{len(options)}.mp4")
                self.run_program("screenrecord", "record", "-t", "3", "-o", path, *options,
                                 environment={"ZU3_AUDIO": "tone"})
                found = self.played(path)
                end = json.loads(found["end"])
                self.assertEqual((end.get("width"), end.get("height")), (640, 480), end)
                self.assertAlmostEqual(end["time"], 3, delta=0.1)
                samples = array.array("h", found["sound"])
                self.assertAlmostEqual(len(samples) / 48000, 3, delta=0.1)
                self.assertTrue(sound_test.hears(samples[48000:96000], 440))
                picture = self.path(f"shown{len(options)}.png")
                picture.write_bytes(found["picture"])
                self.assertEqual(judges.colour_faults(picture, 0, 20), {})
