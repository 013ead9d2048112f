"""Plays a client's session through the server, and tells what happens.

usage: session.py FOLDER, where FOLDER holds orrery-mcp, orrery and guest/
"""

import base64
import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

PATIENCE_SECONDS = 60


def words(values):
    """Arguments or results for a reader: what there is, machines by their names, no braces."""
    return ", ".join(f"{name}: {pathlib.Path(value).stem if name == 'id' else value!r}"
                     for name, value in values.items() if value)


class Client:
    """The least that a client of the protocol is: a line out for a request, a line in for its answer."""

    def __init__(self, folder, temporary):
        # In a process group of its own, so that Ctrl-C leaves it to end the application.
        self.server = subprocess.Popen(
            [folder / "orrery-mcp"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            encoding="utf-8", env=dict(os.environ, TMPDIR=temporary), process_group=0)
        self.started = time.monotonic()
        self.last_id = 0

    def tell(self, mark, text):
        print(f"{time.monotonic() - self.started:6.2f} s {mark} {text}")

    def send(self, method, params, notification=False):
        message = {"jsonrpc": "2.0", "method": method, "params": params}
        if not notification:
            self.last_id += 1
            message["id"] = self.last_id
        print(json.dumps(message), file=self.server.stdin, flush=True)

    def answer(self):
        """Waits for the answer to the last request, and tells the events that come before it."""
        signal.alarm(PATIENCE_SECONDS)
        for message in map(json.loads, self.server.stdout):
            if message.get("method") == "notifications/message":
                detail = message["params"]["data"]["detail"]
                self.tell("<-", f"event: {detail['progress']} % {detail['step']}")
            elif message["id"] == self.last_id:
                signal.alarm(0)
                return message["result"]
        raise SystemExit("the server has ended")

    def start_call(self, tool, **arguments):
        self.tell("->", f"{tool} {words(arguments)}")
        self.send("tools/call", {"name": tool, "arguments": arguments})

    def call(self, tool, **arguments):
        """Gives what a tool answers: the members of its text, and a picture where there is one."""
        self.start_call(tool, **arguments)
        result = self.answer()
        *picture, text = result["content"]
        members = {"found": False} if result["isError"] else json.loads(text["text"])
        if members.get("found") is False:
            raise SystemExit(f"{tool} failed: {text['text']}")
        if not {"vms", "text"} & members.keys():  # those are told otherwise
            self.tell("<-", words(members))
        return members | (picture[0] if picture else {})

    def close(self):
        """Ends what still runs: a call, the application, the server."""
        if self.server.poll() is None:
            self.send("notifications/cancelled", {"requestId": self.last_id}, notification=True)
            self.start_call("quit_app", mode="force")
            self.server.communicate(timeout=PATIENCE_SECONDS)


def main(folder):
    sys.stdout.reconfigure(line_buffering=True)
    for ending in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(ending, lambda number, _: sys.exit(128 + number))
    signal.signal(signal.SIGALRM, lambda *_: sys.exit(f"no answer within {PATIENCE_SECONDS} s"))
    # An installation of its own, because FOLDER's application may be running for another client; the
    # socket not below it, because its path may be too long for one.
    with tempfile.TemporaryDirectory(prefix="session-", dir=folder) as own, \
            tempfile.TemporaryDirectory(prefix="orrery-demo-", dir="/tmp") as temporary:
        for program in ("orrery-mcp", "orrery"):
            shutil.copy(folder / program, own)
        (pathlib.Path(own) / "guest").symlink_to((folder / "guest").resolve())
        with contextlib.closing(Client(pathlib.Path(own), temporary)) as client:
            play(client, folder)


def play(client, folder):
    print("\n== A client, the program that an AI works through, connects to the server.")
    client.send("initialize", {"protocolVersion": "2025-06-18", "capabilities": {},
                               "clientInfo": {"name": "demo", "version": "1"}})
    client.answer()
    client.send("notifications/initialized", {}, notification=True)
    client.send("tools/list", {})
    tools = [tool["name"] for tool in client.answer()["tools"]]
    client.tell("<-", f"it offers {len(tools)} tools: {', '.join(tools[:6])}, ...")

    print("\n== The application does not run yet. The server starts it; a machine starts with it.")
    client.call("launch_app")
    machines = client.call("list_vms")["vms"]
    client.tell("<-", "; ".join(f"{each['name']} is {each['state']}" for each in machines))
    if not machines:
        client.call("list_jobs")
        raise SystemExit("the first machine could not be made")
    vm = machines[0]["id"]

    print("\n== The machine boots. The client waits for text on its screen, then logs in by keys.")
    for wanted, keys in [("login: *$", "demo\n"), ("^Password:", "demo\n"),
                         (r"\$ *$", "clear; uname -sr; echo $((6 * 7))\n"), ("^42$", ""),
                         (r"\$ *$", "")]:
        client.call("wait_for_text", id=vm, pattern=wanted, timeoutSeconds=45)
        if keys:
            client.call("send_input", id=vm, type="text", value=keys)

    print("\n== What its screen shows now, as text and as a picture.")
    text = client.call("read_console_text", id=vm)["text"]
    client.tell("<-", text.replace("\n", "\n            "))
    path = folder / "screen.png"
    path.write_bytes(base64.b64decode(client.call("capture_screen", id=vm)["data"]))
    print(f"            The picture is in {path}.")

    print("\n== A command without keys and screen, over SSH; it ends with the exit code 3.")
    client.call("provision_ssh", id=vm)
    client.call("run_in_guest", id=vm, command="whoami; ls /nowhere; exit 3")

    print("\n== The machine is suspended, its memory kept on the disk, and goes on where it was.")
    client.call("suspend_resume_vm", id=vm)
    client.call("suspend_resume_vm", id=vm)
    client.call("wait_for_text", id=vm, pattern="^42$")

    print("\n== A second machine is made. What is done meanwhile arrives as events.")
    second = client.call("create_vm", os="linux", name="Second", cpu=1, ramGB=1, diskGB=8, network="nat",
                         unattended=True, username="ada", password="lovelace")["id"]
    client.call("start_vm", id=second)

    print("\n== The client waits for something that never comes, and cancels that after a second.")
    client.start_call("wait_for_text", id=vm, pattern="never shown", timeoutSeconds=45)
    time.sleep(1)
    client.send("notifications/cancelled", {"requestId": client.last_id}, notification=True)
    client.tell("<-", client.answer()["content"][0]["text"])

    print("\n== The application is ended, its machines with it, and the server with its input.")
    client.call("quit_app")
    client.server.stdin.close()
    print(f"            The server ended with status {client.server.wait(PATIENCE_SECONDS)}")


main(pathlib.Path(sys.argv[1]))
