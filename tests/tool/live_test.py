"""`speech-enhance live` between pipes, as people use it with arecord and aplay.

usage: live_test.py PATH-OF-SPEECH-ENHANCE
"""

import array
import contextlib
import fcntl
import os
import pty
import random
import shutil
import signal
import struct
import subprocess
import time
import unittest
import wave

from program_test import PROGRAM, ProgramCase, noise, wav

RATE = 16000
LATENCY = 1327  # samples at 16 kHz


def sound(frames, seed):
    return array.array("h", noise(frames / RATE, seed))


def live(*arguments, **options):
    return subprocess.Popen([PROGRAM, "live", *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=options.pop("stderr", subprocess.PIPE), **options)


class LiveTest(ProgramCase):
    def finish(self, process, data=None, code=0):
        out, errors = process.communicate(data, timeout=60)
        self.assertEqual(process.returncode, code, errors)
        return out, (errors or b"").decode()

    def refuse(self, code, words, data, *arguments):
        out, errors = self.finish(live(*arguments), data, code)
        self.assertEqual(out, b"")
        self.assertIn(words, errors)
        self.assertEqual(errors.count("\n"), 1)

    def test_gives_what_the_tool_makes_of_the_recording(self):
        """However the sound arrives, with two microphones and a reference, raw and as WAV."""
        frames = 3 * RATE
        mics, ref = sound(2 * frames, 1), sound(frames, 2)
        interleaved = array.array("h", (s for i in range(frames) for s in (mics[2 * i], mics[2 * i + 1], ref[i])))
        self.mic.write_bytes(wav(mics.tobytes(), 2))
        (self.folder / "ref.wav").write_bytes(wav(ref.tobytes()))
        (self.folder / "all.wav").write_bytes(wav(interleaved.tobytes(), 3))
        settings = ["--delay", "0", "--preset", "voice", "--peak", "3000:3:2"]
        subprocess.run([PROGRAM, self.mic, "--ref", self.folder / "ref.wav", "-o", self.folder / "out.wav", *settings],
                       check=True)
        expected = (self.folder / "out.wav").read_bytes()[44:]
        whole, errors = self.finish(live("--ref-channels", 1, *settings), (self.folder / "all.wav").read_bytes())
        self.assertEqual(errors, "")
        self.assertEqual(whole[44 + 2 * LATENCY:], expected)
        self.assertEqual(whole[44:44 + 2 * LATENCY].strip(b"\0"), b"")

        raw = live("--format", "S16_LE", "--channels", 3, "--ref-channels", 1, *settings)
        feeder = random.Random(3)
        data = interleaved.tobytes()
        if os.fork() == 0:  # pieces that end anywhere, as pipes cut them
            position = 0
            while position < len(data):
                piece = feeder.randint(1, 9001)
                os.write(raw.stdin.fileno(), data[position:position + piece])
                position += piece
            os._exit(0)
        out, _ = self.finish(raw)
        os.wait()
        self.assertEqual(out, whole[44:])

        with open(self.folder / "all.wav", "rb") as source, open(self.folder / "file.wav", "wb") as target:
            subprocess.run([PROGRAM, "live", "--ref-channels", "1", *settings], stdin=source, stdout=target, check=True)
        with wave.open(str(self.folder / "file.wav")) as file:  # which knows its length
            self.assertEqual(file.readframes(1 << 20), out)

    def test_kinds_of_samples_and_their_rates(self):
        samples = sound(RATE, 4)
        outputs = {}
        for name, size, pack in (("S16_LE", 2, lambda s: struct.pack("<h", s)),
                                 ("S24_3LE", 3, lambda s: struct.pack("<i", s << 8)[:3]),
                                 ("S32_LE", 4, lambda s: struct.pack("<i", s << 16)),
                                 ("FLOAT_LE", 4, lambda s: struct.pack("<f", s / 32768))):
            out, _ = self.finish(live("--format", name, "--rate", 48000, "--amount", 0), b"".join(map(pack, samples)))
            latency = 4365
            self.assertEqual(len(out), size * (len(samples) + latency))
            unpack = {"S16_LE": lambda b: struct.unpack("<h", b)[0] / 2 ** 15,
                      "S24_3LE": lambda b: struct.unpack("<i", b"\0" + b)[0] / 2 ** 31,
                      "S32_LE": lambda b: struct.unpack("<i", b)[0] / 2 ** 31,
                      "FLOAT_LE": lambda b: struct.unpack("<f", b)[0]}[name]
            outputs[name] = [unpack(out[i:i + size]) for i in range(0, len(out), size)]
            self.assertLess(max(abs(a - b) for a, b in zip(outputs["S16_LE"], outputs[name])), 2 / 32768)
        self.assertGreater(max(map(abs, outputs["FLOAT_LE"])), 0.02)

    def test_a_click_comes_out_within_90_ms(self):
        """Blocks of 10 ms at their times: the click is read back before 90 ms more have gone in, and the output
        never lags the input by more than its latency."""
        process = live("--format", "S16_LE", "--amount", 0)
        block, click_at = 160, 60
        fcntl.fcntl(process.stdout, fcntl.F_SETFL, os.O_NONBLOCK)
        out = bytearray()
        for index in range(80):
            samples = array.array("h", [0] * block)
            if index == click_at:
                samples[0] = 20000
            process.stdin.write(samples.tobytes())
            process.stdin.flush()
            deadline = time.monotonic() + 10
            while len(out) < 2 * block * (index + 1) and time.monotonic() < deadline:
                out += process.stdout.read() or b""
                time.sleep(0.0005)
            self.assertEqual(len(out), 2 * block * (index + 1), "every block is answered before the next one")
        heard = array.array("h", bytes(out))
        click = max(range(len(heard)), key=lambda i: abs(heard[i]))
        self.assertEqual(click - click_at * block, LATENCY)
        self.assertLessEqual(1000 * LATENCY / RATE, 90)
        fcntl.fcntl(process.stdout, fcntl.F_SETFL, 0)
        rest, _ = self.finish(process)
        self.assertEqual(len(rest), 2 * LATENCY)

    def test_signals_end_it_with_all_that_was_read(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = live("--format", "S16_LE")
            heard = sound(1600, 5).tobytes()
            process.stdin.write(heard)
            process.stdin.flush()
            out = process.stdout.read(len(heard))
            process.send_signal(number)  # while it waits for more
            rest, errors = self.finish(process)
            self.assertEqual((len(out + rest), errors), (len(heard) + 2 * LATENCY, ""))
        with open("/dev/zero", "rb") as endless, open("/dev/null", "wb") as nowhere:
            process = subprocess.Popen([PROGRAM, "live", "--format", "S16_LE"], stdin=endless, stdout=nowhere)
            time.sleep(0.3)
            process.send_signal(signal.SIGINT)  # while it never waits
            self.assertEqual(process.wait(20), 0)
        with open("/dev/zero", "rb") as endless:
            process = subprocess.Popen([PROGRAM, "live", "--format", "S16_LE"], stdin=endless, stdout=subprocess.PIPE)
            time.sleep(0.5)
            process.send_signal(signal.SIGINT)  # while it waits for a reader that does not read
            self.assertEqual(process.wait(20), 0)
            process.stdout.close()

    def test_a_player_that_leaves(self):
        with open("/dev/zero", "rb") as endless:
            process = subprocess.Popen([PROGRAM, "live", "--format", "S16_LE"], stdin=endless, stdout=subprocess.PIPE,
                                       stderr=subprocess.PIPE)
            process.stdout.read(1000)
            process.stdout.close()
            self.assertEqual(process.wait(20), 0)
            self.assertEqual(process.stderr.read(), b"")
            process.stderr.close()

    def test_levels_show_on_a_terminal_only(self):
        reader, writer = pty.openpty()
        process = live("--format", "S16_LE", "--channels", 2, "--ref-channels", 1, stderr=writer)
        os.close(writer)
        self.finish(process, sound(4 * RATE, 6).tobytes())
        seen = b""
        with contextlib.suppress(OSError):  # how a terminal ends whose other side is closed
            while part := os.read(reader, 1 << 16):
                seen += part
        os.close(reader)
        seen = seen.decode()
        for word in ("mic [", "out [", "ref [", "delay ", "echo reduced "):
            self.assertIn(word, seen)
        self.assertTrue(seen.endswith("\r\x1b[K"))

    def test_wrong_use(self):
        self.mic.write_bytes(wav(sound(4800, 7).tobytes(), 3))
        whole = self.mic.read_bytes()
        self.refuse(3, "no WAV header", b"text" * 10)
        self.refuse(3, "ends before its first sample", b"")
        self.refuse(3, "ends before its first sample", whole[:30])
        self.refuse(3, "8 bits", whole[:34] + b"\x08\0" + whole[36:])
        self.refuse(3, "3 channels less 0 of the reference", whole)
        self.refuse(3, "1 channels less 2 of the reference", b"", "--format", "S16_LE", "--ref-channels", 2)
        self.refuse(3, "8000", b"", "--format", "S16_LE", "--rate", 7999)
        self.refuse(2, "need the --format", whole, "--rate", 16000)
        self.refuse(2, "S24_3LE", whole, "--format", "U8")
        self.refuse(2, "needs --ref-channels", whole, "--delay", 10)
        with open("/dev/full", "wb") as full:
            process = subprocess.run([PROGRAM, "live", "--ref-channels", "1"], input=whole, stdout=full,
                                     stderr=subprocess.PIPE)
        self.assertEqual(process.returncode, 4)
        self.assertIn(b"No space", process.stderr)

    @unittest.skipUnless(shutil.which("arecord") and shutil.which("aplay"), "alsa-utils are not installed")
    def test_between_arecord_and_aplay(self):
        """Devices are files: ALSA's plugin `file` records from one and plays into another."""
        heard = sound(2 * RATE, 8)
        (self.folder / "in.raw").write_bytes(heard.tobytes())
        devices = self.folder / "asoundrc"
        devices.write_text(f"""
            pcm.!default {{
              type file
              slave.pcm {{ type null }}
              file "{self.folder}/out.raw"
              infile "{self.folder}/in.raw"
              format raw
            }}""")
        environment = {**os.environ, "ALSA_CONFIG_PATH": f"/usr/share/alsa/alsa.conf:{devices}"}
        pipeline = f"arecord -q -f S16_LE -r {RATE} -c 1 -d 1 | '{PROGRAM}' live | aplay -q"
        result = subprocess.run(["bash", "-o", "pipefail", "-c", pipeline], env=environment, stderr=subprocess.PIPE, timeout=60)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        played = (self.folder / "out.raw").read_bytes()
        expected, _ = self.finish(live("--format", "S16_LE"), heard[:RATE].tobytes())
        self.assertEqual(played[:len(expected)], expected)
        self.assertEqual(played[len(expected):].strip(b"\0"), b"")  # aplay fills its last period


if __name__ == "__main__":
    unittest.main()
