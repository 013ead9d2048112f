"""Plays a client's session through the server, and tells what happens.

usage: session.py FOLDER, where FOLDER holds orrery-mcp and orrery
"""

import base64
import json
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

PATIENCE_SECONDS = 60


class Client:
    """The least that a client of the protocol is: lines out, lines in, answers found by their id."""

    def __init__(self, folder, temporary):
        # In a process group of its own, so that Ctrl-C leaves it to end the application.
        self.server = subprocess.Popen(
            [folder / "orrery-mcp"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            env=dict(os.environ, TMPDIR=temporary), process_group=0)
        self.started = time.monotonic()
        self.last_id = 0
        self.lines = queue.Queue()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.server.stdout:
            self.lines.put(json.loads(line))

    def tell(self, mark, text):
        print(f"{time.monotonic() - self.started:6.2f} s {mark} {text}", flush=True)

    def send(self, method, params=None, notification=False):
        message = {"jsonrpc": "2.0", "method": method}
        if params is not None:
            message["params"] = params
        if not notification:
            self.last_id += 1
            message["id"] = self.last_id
        text = json.dumps(message)
        self.tell("->", text)
        self.server.stdin.write(text.encode() + b"\n")
        self.server.stdin.flush()
        return self.last_id

    def answer(self, wanted):
        """Waits for the answer to a request, and shows the events that come before it."""
        while True:
            message = self.lines.get(timeout=PATIENCE_SECONDS)
            if message.get("method") == "notifications/message":
                detail = message["params"]["data"]["detail"]
                self.tell("<-", f"event: {detail['name']} {detail['progress']} % {detail['step']}")
                continue
            if message["id"] != wanted:
                raise SystemExit(f"an answer to {message['id']}, not to {wanted}")
            text = json.dumps(message)
            self.tell("<-", text if len(text) <= 240 else f"{text[:240]}... ({len(text)} bytes)")
            return message.get("result")

    def request(self, method, params=None):
        return self.answer(self.send(method, params))

    def start_call(self, tool, **arguments):
        return self.send("tools/call", {"name": tool, "arguments": arguments})

    def call(self, tool, **arguments):
        result = self.answer(self.start_call(tool, **arguments))
        if result["isError"]:
            raise SystemExit(f"{tool} failed: {result['content'][-1]['text']}")
        return result["content"]

    def stop(self):
        """Ends what still runs: a call, the application, the server."""
        if self.server.poll() is None:
            self.send("notifications/cancelled", {"requestId": self.last_id}, notification=True)
            self.start_call("quit_app", mode="force")
            self.server.stdin.close()
            self.server.wait(PATIENCE_SECONDS)


def step(text):
    print(f"\n== {text}", flush=True)


def main(folder):
    for ending in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda number, _: sys.exit(128 + number))
    # An installation of its own, because FOLDER's application may be running for another client; the
    # socket not below it, because its path may be too long for one.
    with tempfile.TemporaryDirectory(prefix="session-", dir=folder) as own, \
            tempfile.TemporaryDirectory(prefix="orrery-demo-", dir="/tmp") as temporary:
        for program in ("orrery-mcp", "orrery"):
            shutil.copy(folder / program, own)
        client = Client(pathlib.Path(own), temporary)
        try:
            play(client, folder)
        finally:
            client.stop()


def play(client, folder):
    step("The client introduces itself; both agree on a version of the protocol.")
    client.request("initialize", {"protocolVersion": "2025-06-18", "capabilities": {},
                                  "clientInfo": {"name": "demo", "version": "1"}})
    client.send("notifications/initialized", notification=True)

    step("It asks what the server can do.")
    tools = client.request("tools/list")["tools"]
    print(f"{len(tools)} tools: {', '.join(tool['name'] for tool in tools[:6])}, ...")

    step("The application does not run yet; the server starts it.")
    client.call("launch_app")

    step("A machine is created, as a job. Its progress arrives as events while the client waits.")
    machine = {"os": "linux", "cpu": 2, "ramGB": 4, "diskGB": 20, "network": "nat",
               "name": f"demo {os.getpid()}"}
    job = json.loads(client.call("create_vm", **machine, **{"async": True})[0]["text"])["jobId"]
    vm = json.loads(client.call("job_wait", jobId=job, timeoutSeconds=30)[0]["text"])["vmId"]

    step("It is started. While a call waits for its screen, a ping is answered at once.")
    client.call("start_vm", id=vm)
    waiting = client.start_call("wait_for_text", id=vm, pattern="login:")
    client.request("ping")
    client.answer(waiting)

    step("A picture of its screen, as the AI would get it.")
    image, _ = client.call("capture_screen", id=vm, format="jpeg")
    path = folder / "screen.jpeg"
    path.write_bytes(base64.b64decode(image["data"]))
    print(f"written to {path}")

    step("A call that would wait for 45 seconds is cancelled.")
    waiting = client.start_call("wait_for_text", id=vm, pattern="never shown", timeoutSeconds=45)
    time.sleep(0.5)  # let it get on its way; what is not in flight cannot be cancelled
    client.send("notifications/cancelled", {"requestId": waiting}, notification=True)
    client.answer(waiting)

    step("The application is ended, and with its input the server.")
    client.call("quit_app")
    client.server.stdin.close()
    print(f"the server ended with status {client.server.wait(PATIENCE_SECONDS)}")


main(pathlib.Path(sys.argv[1]))
