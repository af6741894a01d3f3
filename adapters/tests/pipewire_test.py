"""The plugin in PipeWire's echo-cancel module, in a PipeWire of its own, against the program.

usage: pipewire_test.py SPEECH-ENHANCE PLUGIN-FOLDER CONFIGURATION

One player with four channels (microphone twice, reference twice) is linked to the module's capture and to its
sink, so that the two stay in step. Exits with 77 (skipped) where PipeWire is not installed.
"""

import os
import re
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np
import soundfile

from against_tool import by_tool, compare, read_scene, skip_without

RATE = 48000
BLOCK = 1920  # samples of a block of the graph: whole frames of the engine, as the program cuts them
LEAD = 3  # seconds of silence ahead of the scene, while the links are made
FREE = "node.autoconnect = false"  # nothing is linked but by this test
SYSTEM_PLUGINS = Path("/usr/lib") / f"{os.uname().machine}-linux-gnu" / "spa-0.2"


class Session:
    """PipeWire, WirePlumber and a bus of their own; everything ends with it."""

    def __init__(self, folder, plugins, configuration):
        runtime, config = folder / "runtime", folder / "config/pipewire/pipewire.conf.d"
        runtime.mkdir(mode=0o700)
        config.mkdir(parents=True)
        text = re.sub(r"(node.name = speechenhance.(\w+))", rf"\1 {FREE}", Path(configuration).read_text())
        (config / "speechenhance.conf").write_text(text)
        (config / "blocks.conf").write_text("context.properties = { clock.power-of-two-quantum = false }")
        self.environment = {
            "PATH": os.environ["PATH"], "LD_LIBRARY_PATH": os.environ.get("LD_LIBRARY_PATH", ""),
            "HOME": str(folder), "XDG_RUNTIME_DIR": str(runtime), "XDG_CONFIG_HOME": str(folder / "config"),
            "PIPEWIRE_QUANTUM": f"{BLOCK}/{RATE}", "PIPEWIRE_RUNTIME_DIR": str(runtime),
            "SPA_PLUGIN_DIR": f"{plugins}:{SYSTEM_PLUGINS}"}
        self.log = open(folder / "log", "w+")
        daemons = "pipewire & while [ ! -S $XDG_RUNTIME_DIR/pipewire-0 ]; do sleep 0.1; done; exec wireplumber"
        self.processes = []
        self.start("dbus-run-session", "--", "sh", "-c", daemons)

    def start(self, *command):
        process = subprocess.Popen(command, env=self.environment, stdout=self.log, stderr=self.log,
                                   start_new_session=True)
        self.processes.append(process)
        return process

    def wait_for_port(self, name):
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            listed = subprocess.run(["pw-link", "--output", "--input"], env=self.environment, text=True,
                                    capture_output=True).stdout.split("\n")
            if name in (line.strip() for line in listed):
                return
            time.sleep(0.2)
        raise SystemExit(f"the port {name} does not appear; there are {listed}\n{self.tail()}")

    def link(self, source, target):
        self.wait_for_port(source)
        self.wait_for_port(target)
        subprocess.run(["pw-link", source, target], env=self.environment, check=True)

    def tail(self):
        self.log.flush()
        return Path(self.log.name).read_text()[-3000:]

    def close(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
                process.wait(10)


def through_pipewire(folder, plugins, configuration, mic, reference):
    soundfile.write(folder / "in.wav", np.stack([mic, mic, reference, reference], 1), RATE, "FLOAT")
    session = Session(folder, plugins, configuration)
    try:
        session.wait_for_port("speechenhance.source:capture_MONO")
        free = f"{{ {FREE} node.name = %s }}"
        recorder = session.start("pw-cat", "--record", "--rate", str(RATE), "--channels", "1", "--channel-map",
                                 "mono", "--format", "f32", "-P", free % "recorder", folder / "out.wav")
        session.link("speechenhance.source:capture_MONO", "recorder:input_MONO")
        player = session.start("pw-cat", "--playback", "-P", free % "player", folder / "in.wav")
        for source, target in (("output_FL", "speechenhance.capture:input_MONO"),
                               ("output_RL", "speechenhance.sink:playback_MONO")):
            session.link(f"player:{source}", target)
        player.wait(90)
        time.sleep(0.5)
        os.killpg(recorder.pid, signal.SIGINT)
        recorder.wait(10)
        recorded = soundfile.read(folder / "out.wav", dtype="float32")[0]
        return recorded[max(0, np.argmax(np.abs(recorded) > 1e-3) - RATE):]
    finally:
        session.close()


def main():
    program, plugins, configuration = sys.argv[1:4]
    skip_without("pipewire", "wireplumber", "dbus-run-session", "pw-cat", "pw-link", "pw-dump")
    with tempfile.TemporaryDirectory() as name:
        mic, reference = read_scene(RATE)
        # Both hear the same silence first and cut the same frames: what is left of an echo hangs on either.
        led = [np.pad(signal, (LEAD * RATE, RATE)) for signal in (mic, reference)]
        tools = by_tool(program, Path(name), *led, RATE, "call")[LEAD * RATE:][:len(mic)]
    for tries_left in (2, 1, 0):  # the graph runs in real time and loses sound where the machine is busy
        with tempfile.TemporaryDirectory() as name:
            ours = through_pipewire(Path(name), plugins, configuration, *led)
        try:
            return compare(ours, tools, mic, RATE)
        except AssertionError:
            if tries_left == 0:
                raise


if __name__ == "__main__":
    main()
