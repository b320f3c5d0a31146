#!/usr/bin/python3
"""A web page of another origin cannot change the studio, in a real browser.

A trained studio runs on one loopback port; a second web server on another
port (another origin, as any web site a person visits is) serves an attack
page. Headless Chromium opens that page, which tries every way a page can
send requests without the studio's permission: fetch() in no-cors mode with
the content types a browser sends without asking first (text/plain with a
tab before ';', text/plain, form encodings), fetch() in cors mode with a
guessed token (which the browser must ask about first), navigator.sendBeacon,
and form posts into frames, to /api/model, /api/pictures, /api/train,
/api/reset and /api/samples/0. It also tries to read the session's token.
Afterwards the studio's status, picture list and model must be exactly as
before, and the page's log must show that the browser did send the simple
requests (so that only the studio's refusal kept them out).

Usage: test_studio_cross_site.py OSTREL DATA_DIR
"""
import http.server
import json
import os
import shutil
import sys
import tempfile
import threading

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_client import Client  # noqa: E402
from studio_process import StudioProcess  # noqa: E402
from test_studio_browser import start_browser  # noqa: E402

from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402

TRAINING = "BloodImage_00000.jpg"
OTHER = "BloodImage_00001.jpg"
CELLS = [[83, 336, 97, 100], [68, 237, 97, 100], [219, 362, 97, 100], [412, 349, 97, 100],
         [153, 75, 97, 100], [9, 74, 97, 100], [538, 40, 97, 100], [386, 12, 97, 100]]

ATTACK_PAGE = r"""<!doctype html>
<html><head><meta charset="utf-8"><title>attack</title></head>
<body><pre id="log"></pre>
<script>
(async () => {
  const studio = new URLSearchParams(location.search).get('studio');
  const log = [];
  const note = (...entry) => { log.push(entry); };
  async function attempt(label, url, init) {
    try {
      const r = await fetch(url, init);
      note(label, 'sent', r.type, r.status);
    } catch (e) {
      note(label, 'blocked', String(e));
    }
  }
  const model = await (await fetch('/other.model')).arrayBuffer();
  const jpeg = await (await fetch('/cells.jpg')).arrayBuffer();
  const train = JSON.stringify({picture: 'BloodImage_00000.jpg', boxes: [[0, 0, 97, 100]]});
  const targets = [
    ['model', '/api/model?name=evil.model', 'POST', model],
    ['pictures', '/api/pictures?name=evil.jpg', 'POST', jpeg],
    ['train', '/api/train', 'POST', train],
    ['reset', '/api/reset', 'POST', '{}'],
  ];
  const types = ['text/plain\t;charset=utf-8', 'text/plain;charset=UTF-8', 'TEXT/PLAIN ;charset=utf-8',
                 'application/x-www-form-urlencoded', 'multipart/form-data; boundary=x'];
  for (const [name, path, method, body] of targets) {
    for (const type of types) {
      for (const mode of ['no-cors', 'cors']) {
        await attempt(`${name} ${mode} ${JSON.stringify(type)}`, studio + path,
                      {method, mode, credentials: 'include', headers: {'Content-Type': type}, body});
      }
    }
    // A guessed token forces the browser to ask first; the studio says no.
    await attempt(`${name} guessed token`, studio + path, {method, mode: 'cors',
                  headers: {'Content-Type': 'application/json', 'X-Ostrel-Token': '0'.repeat(64)}, body});
    await attempt(`${name} json`, studio + path, {method, mode: 'cors',
                  headers: {'Content-Type': 'application/json'}, body});
    note(`${name} beacon`, navigator.sendBeacon(studio + path, new Blob([body], {type: 'text/plain'})) ? 'queued' : 'refused');
  }
  await attempt('remove sample', studio + '/api/samples/0', {method: 'DELETE', mode: 'cors'});
  // The token itself: a foreign page cannot read it.
  try {
    const r = await fetch(studio + '/api/session');
    const token = (await r.json()).token;
    note('session', 'read', token);
    await attempt('reset with the read token', studio + '/api/reset', {method: 'POST', mode: 'cors',
                  headers: {'Content-Type': 'application/json', 'X-Ostrel-Token': token}, body: '{}'});
  } catch (e) {
    note('session', 'blocked', String(e));
  }
  // Form posts, each into its own frame.
  function formPost(label, path, enctype, fill) {
    return new Promise((resolve) => {
      const frame = document.createElement('iframe');
      frame.name = 'f' + Math.random().toString(36).slice(2);
      document.body.appendChild(frame);
      const form = document.createElement('form');
      form.method = 'POST';
      form.action = studio + path;
      form.enctype = enctype;
      form.target = frame.name;
      fill(form);
      document.body.appendChild(form);
      const done = () => { note(label, 'submitted'); resolve(); };
      frame.addEventListener('load', done, {once: true});
      setTimeout(done, 4000);
      form.submit();
    });
  }
  const field = (form, name, value) => {
    const input = document.createElement('input');
    input.name = name;
    input.value = value;
    form.appendChild(input);
  };
  const fileField = (form, name, bytes, fileName) => {
    const input = document.createElement('input');
    input.type = 'file';
    input.name = name;
    const transfer = new DataTransfer();
    transfer.items.add(new File([bytes], fileName, {type: 'application/octet-stream'}));
    input.files = transfer.files;
    form.appendChild(input);
  };
  for (const [name, path, , body] of targets) {
    if (typeof body === 'string') {
      // text/plain forms send "name=value": a JSON body split at its '='.
      const head = body === '{}' ? '{"x": "' : body.slice(0, -1) + ', "x": "';
      await formPost(`${name} form text/plain`, path, 'text/plain', (f) => field(f, head, '"}'));
      await formPost(`${name} form urlencoded`, path, 'application/x-www-form-urlencoded', (f) => field(f, body, ''));
    } else {
      await formPost(`${name} form multipart`, path, 'multipart/form-data', (f) => fileField(f, 'file', body, 'evil.bin'));
    }
  }
  await new Promise((r) => setTimeout(r, 500));  // the beacons leave
  document.getElementById('log').textContent = JSON.stringify(log);
  document.title = 'done';
})();
</script></body></html>
"""


def serve_attacker(files):
    """A web server of another origin (another loopback port) serving files from memory."""
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):  # noqa: N802 - the server's interface
            path = self.path.split("?", 1)[0]
            if path not in files:
                self.send_error(404)
                return
            ctype, body = files[path]
            self.send_response(200)
            self.send_header("Content-Type", ctype)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def snapshot(c):
    status = c.json("GET", "/api/status")
    pictures = c.json("GET", "/api/pictures")
    code, _, model = c.request("GET", "/api/model")
    return status, pictures, code, model


def main():
    ostrel, data = sys.argv[1], sys.argv[2]
    work = tempfile.mkdtemp(prefix="ostrel-studio-cross-site-")
    pictures = os.path.join(work, "pictures")
    shutil.copytree(os.path.join(data, "bccd", "images"), pictures)
    studio = StudioProcess(ostrel, pictures)
    c = Client(studio.port)
    driver = None
    attacker = None
    failed = []
    try:
        c.json("POST", "/api/train", {"picture": TRAINING, "boxes": CELLS[:4]})
        _, _, other_model = c.request("GET", "/api/model")
        c.json("POST", "/api/train", {"picture": TRAINING, "boxes": CELLS})
        before = snapshot(c)
        with open(os.path.join(pictures, OTHER), "rb") as f:
            jpeg = f.read()
        attacker = serve_attacker({"/attack.html": ("text/html; charset=utf-8", ATTACK_PAGE.encode()),
                                   "/other.model": ("application/octet-stream", other_model),
                                   "/cells.jpg": ("image/jpeg", jpeg)})
        attacker_port = attacker.server_address[1]
        assert attacker_port != studio.port
        print(f"studio at {studio.url}, attack page at http://127.0.0.1:{attacker_port}/attack.html")
        os.makedirs(os.path.join(work, "downloads"))
        driver = start_browser(os.path.join(work, "profile"), os.path.join(work, "downloads"))
        driver.get(f"http://127.0.0.1:{attacker_port}/attack.html?studio=http://127.0.0.1:{studio.port}")
        WebDriverWait(driver, 120, poll_frequency=0.1).until(lambda d: d.title == "done")
        log = json.loads(driver.execute_script("return document.getElementById('log').textContent"))
        sent = [e for e in log if e[1] == "sent"]
        print(f"  the page made {len(log)} attempts; the browser sent {len(sent)} of them without asking first")
        after = snapshot(c)
        checks = [
            (after[0] == before[0], "the studio's status is unchanged (trained, model, samples, taught)"),
            (after[1] == before[1], "the picture list is unchanged (nothing uploaded)"),
            (after[2] == 200 and after[3] == before[3], "the model is unchanged, byte for byte"),
            (any(e[0].startswith("model no-cors \"text/plain\\t") and e[1] == "sent" for e in log),
             "the browser did send the tab-separated text/plain model upload without asking"),
            (not any(e[0] == "session" and e[1] == "read" for e in log), "the page could not read the session's token"),
            (all(e[1] != "sent" or e[2] == "opaque" for e in log), "no reply was readable by the page"),
        ]
        for ok, message in checks:
            print(f"  {'ok' if ok else 'FAILED'}: {message}")
            if not ok:
                failed.append(message)
        if failed:
            for entry in log:
                print("   ", entry)
            print("   status before:", before[0])
            print("   status after: ", after[0])
    finally:
        if driver is not None:
            driver.quit()
        if attacker is not None:
            attacker.shutdown()
        code, _, err, _ = studio.stop()
        shutil.rmtree(work, ignore_errors=True)
        if code != 0:
            failed.append(f"the studio ended with {code}: {err}")
    print("cross-site browser test: " + ("0 failed" if not failed else f"{len(failed)} failed"))
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
