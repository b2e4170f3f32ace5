#!/usr/bin/env python3
"""Drives the live view in headless Chromium over the DevTools protocol and checks what a user
sees and does: the connection, the heat maps, the autofocus status, the autofocus, focus and
filter controls. Usage: browser_test.py PAGE_URL DEVTOOLS_PORT. Exit 0 when every check passed."""
import base64
import json
import os
import sys
import time
import urllib.request

import websocket  # Debian: python3-websocket

url, devtools = sys.argv[1], int(sys.argv[2])


def connect():
    for _ in range(100):
        try:
            targets = json.load(urllib.request.urlopen(f"http://127.0.0.1:{devtools}/json"))
            pages = [t for t in targets if t.get("type") == "page"]
            if pages:
                return websocket.create_connection(pages[0]["webSocketDebuggerUrl"], timeout=10)
        except OSError:
            pass
        time.sleep(0.1)
    sys.exit("FAIL: no DevTools page target")


ws = connect()
ids = iter(range(1, 1 << 30))


def call(method, **params):
    i = next(ids)
    ws.send(json.dumps({"id": i, "method": method, "params": params}))
    while True:
        m = json.loads(ws.recv())
        if m.get("id") == i:
            if "error" in m:
                raise RuntimeError(m["error"])
            return m.get("result", {})


def js(expr):
    r = call("Runtime.evaluate", expression=expr, returnByValue=True, awaitPromise=True)
    if "exceptionDetails" in r:
        raise RuntimeError(f"{expr}: {r['exceptionDetails']}")
    return r["result"].get("value")


def wait(what, expr, seconds=30):
    end = time.time() + seconds
    while time.time() < end:
        try:
            v = js(expr)
        except RuntimeError:  # the page is still loading
            v = None
        if v:
            print(f"ok: {what}")
            return v
        time.sleep(0.2)
    print(f"FAIL: {what}: {expr} never held; page shows:\n" + js("document.body.innerText"))
    sys.exit(1)


call("Page.enable")
call("Page.navigate", url=url)
wait("the page reaches the tuning server", "$('conn').textContent === 'connected'")
wait("several polls arrive", "Number(document.body.dataset.polls) >= 3")
wait("three heat maps of 225 blocks", "document.querySelectorAll('.grid canvas').length === 3 && "
     "[...document.querySelectorAll('.grid')].every(g => g.dataset.values && "
     "JSON.parse(g.dataset.values).length === 225)")
# The chart has structure: the drawn sharp_v map is not one flat colour.
wait("the sharp_v heat map shows structure",
     "(() => { const c = document.querySelector('.grid[data-name=sharp_v] canvas');"
     " const d = c.getContext('2d').getImageData(0, 0, 15, 15).data;"
     " return new Set(Array.from({length: 225}, (_, i) => d[4*i] * 65536 + d[4*i+1] * 256 +"
     " d[4*i+2])).size > 5; })()")
wait("autofocus status shown", "$('af-mode').textContent === 'continuous' && "
     "['start', 'searching', 'focused'].includes($('af-state').textContent)")
wait("a focus value above the no-contrast floor", "Number($('fv').textContent) > 50")

# A grid the user adds appears.
js("(() => { const c = document.querySelector('#grid-choice input[value=fir_h]');"
   " c.checked = true; c.dispatchEvent(new Event('change')); })()")
wait("an added grid appears", "!!document.querySelector('.grid[data-name=fir_h] canvas') && "
     "Number(document.querySelector('.grid[data-name=fir_h]').dataset.max) > 0")

# Focus moves are refused while autofocus is on, then carried out once it is off.
js("$('focus-target').value = 2500; $('focus-go').click()")
wait("focus move refused with autofocus on", "$('messages').textContent.includes("
     "'not sent: the daemon ignores focus moves while autofocus is on')")
js("$('af-off').click()")
wait("autofocus switched off", "$('af-mode').textContent === 'off'")
js("$('focus-go').click()")
wait("the lens focuses to 2500", "$('lens').textContent.endsWith('/ 2500')")
# A zoom command moves the zoom position the page shows.
js("$('zoom-target').value = 3000; $('zoom-speed').value = 7; $('zoom-go').click()")
wait("the zoom shown moves to 3000",
     "Math.abs(Number($('lens').textContent.split(' / ')[0]) - 3000) <= 5", seconds=60)

js("$('fa').value = 5; $('fb').value = 6; $('fc').value = 90; $('fd').value = -70;"
   " $('filter-go').click()")
wait("filter parameters sent", "$('messages').textContent.includes("
     "'filter parameters A 5 B 6 C 90 D -70 sent')")
js("$('fa').value = 300; $('filter-go').click()")
wait("an out-of-range parameter refused", "$('messages').textContent.includes("
     "'refused: a must be a whole number in 0..255')")
wait("still connected after it all", "$('conn').textContent === 'connected' && "
     "Number(document.body.dataset.polls) > 10")
shot = os.environ.get("LIVEVIEW_SCREENSHOT")
if shot:
    call("Emulation.setDeviceMetricsOverride", width=1400, height=1000, deviceScaleFactor=1,
         mobile=False)
    time.sleep(1)
    with open(shot, "wb") as f:
        f.write(base64.b64decode(call("Page.captureScreenshot", format="png")["data"]))
print("PASS")
