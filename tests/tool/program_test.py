"""The program as its users run it: streams, bad input, interruption, several recordings at once.

usage: program_test.py PATH-OF-SPEECH-ENHANCE
"""

import array
import ctypes
import errno
import json
import os
import pathlib
import platform
import pty
import random
import resource
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM = sys.argv.pop(1)


def pcm16(samples):
    return array.array("h", samples).tobytes()


def wav(data, channels=1, rate=16000, bits=16, tag=1):
    align = channels * bits // 8
    head = struct.pack("<HHIIHH", tag, channels, rate, rate * align, align, bits)
    body = b"WAVEfmt " + struct.pack("<I", len(head)) + head
    body += b"data" + struct.pack("<I", len(data)) + data
    return b"RIFF" + struct.pack("<I", len(body)) + body


def noise(seconds, seed, level=3000):
    generator = random.Random(seed)
    return [generator.randint(-level, level) for _ in range(int(seconds * 16000))]


def refuse_files_without_name():
    """For this process and what it starts, no file system has them any more: a filter of system
    calls answers openat with O_TMPFILE."""
    openat = {"x86_64": 257, "aarch64": 56}[platform.machine()]
    load, if_equal, if_bits, give = 0x20, 0x15, 0x45, 0x06
    program = b"".join(struct.pack("<HBBI", *step) for step in [
        (load, 0, 0, 0), (if_equal, 0, 3, openat), (load, 0, 0, 32), (if_bits, 0, 1, 0x400000),
        (give, 0, 0, 0x00050000 | errno.EOPNOTSUPP), (give, 0, 0, 0x7FFF0000)])
    text = ctypes.create_string_buffer(program, len(program))
    filter_ = ctypes.create_string_buffer(struct.pack("@HP", len(program) // 8, ctypes.addressof(text)))
    libc = ctypes.CDLL(None, use_errno=True)
    no_new_privileges, set_seccomp, mode_filter = 38, 22, 2
    if libc.prctl(no_new_privileges, 1, 0, 0, 0) or libc.prctl(set_seccomp, mode_filter, filter_):
        raise OSError(ctypes.get_errno(), "no filter of system calls")


class ProgramCase(unittest.TestCase):
    """A folder with a recording, and the program."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="speech_enhance_test_"))
        self.mic = self.folder / "mic.wav"
        self.out = self.folder / "out.wav"
        self.mic.write_bytes(wav(pcm16(noise(1, 1))))

    def tearDown(self):
        shutil.rmtree(self.folder)

    def run_program(self, *arguments, **options):
        command = [PROGRAM, *map(str, arguments)]
        return subprocess.run(command, capture_output=True, timeout=120, **options)

    def succeed(self, *arguments, **options):
        result = self.run_program(*arguments, **options)
        self.assertEqual(result.returncode, 0, result.stderr.decode())
        return result

    def content(self):
        return {path.relative_to(self.folder): path.read_bytes()
                for path in self.folder.rglob("*") if path.is_file()}

    def fail_cleanly(self, code, words, *arguments, **options):
        """One line that contains the words, the exit code, nothing on standard output, and not a
        file added, changed or removed."""
        before = self.content()
        result = self.run_program(*arguments, **options)
        line = result.stderr.decode()
        self.assertEqual(result.returncode, code, line)
        self.assertEqual(result.stdout, b"")
        self.assertIn(words, line)
        self.assertTrue(line.startswith("speech-enhance: "), line)
        self.assertEqual(line.count("\n"), 1, line)
        self.assertEqual(self.content(), before)


class ProgramTest(ProgramCase):
    def test_output_is_a_wav_file_of_the_same_length_and_nothing_else_is_printed(self):
        result = self.succeed(self.mic, "-o", self.out)
        self.assertEqual(result.stdout + result.stderr, b"")
        self.assertEqual(self.out.read_bytes()[:44], self.mic.read_bytes()[:44])
        self.assertEqual(len(self.out.read_bytes()), 44 + 32000)
        self.assertEqual(sorted(p.name for p in self.folder.iterdir()), ["mic.wav", "out.wav"])

    def test_streams_give_the_same_bytes_as_files(self):
        self.succeed(self.mic, "-o", self.out)
        piped = self.succeed("-", "-o", "-", input=self.mic.read_bytes())
        self.assertEqual(piped.stdout, self.out.read_bytes())
        self.assertEqual(piped.stderr, b"")
        with open(self.mic, "rb") as source:
            self.assertEqual(self.succeed("-", "-o", "-", stdin=source).stdout, piped.stdout)
        with_figures = self.succeed(self.mic, "-o", "-", "--stats")
        self.assertEqual(with_figures.stdout, piped.stdout)
        self.assertIn(b"times real time", with_figures.stderr)
        self.succeed(self.mic, "-o", "/dev/null")
        self.assertFalse(pathlib.Path("/dev/null").is_file())
        fifo = self.folder / "fifo.mp3"
        os.mkfifo(fifo)
        reader = subprocess.Popen(["cat", fifo], stdout=subprocess.PIPE)
        self.succeed(self.mic, "-o", fifo)
        self.assertEqual(reader.communicate()[0], piped.stdout)
        writer = subprocess.Popen(["cp", self.mic, fifo])
        self.assertEqual(self.succeed(fifo, "-o", "-").stdout, piped.stdout)
        writer.wait()

    def test_other_names_of_the_standard_streams(self):
        self.succeed(self.mic, "-o", self.out)
        recording, enhanced = self.mic.read_bytes(), self.out.read_bytes()
        link = self.folder / "link"
        link.symlink_to("/dev/stdout")
        for name in ("/dev/stdout", "/dev/fd/1", "/proc/self/fd/1", link):
            self.assertEqual(self.succeed(self.mic, "-o", name, "--stats").stdout, enhanced)
        redirected = self.folder / "redirected"
        with open(redirected, "wb") as target:
            subprocess.run([PROGRAM, self.mic, "-o", "/dev/stdout"], stdout=target, check=True)
        self.assertEqual(redirected.read_bytes(), enhanced)
        plot = self.succeed(self.mic, "-o", self.out, "--plot", "/dev/stdout").stdout
        self.assertEqual(plot[:4], b"\x89PNG")
        self.assertEqual(self.succeed("/dev/stdin", "-o", "-", input=recording).stdout, enhanced)
        self.fail_cleanly(2, "both", "-", "--ref", "/dev/stdin", "-o", self.out, input=recording)
        self.fail_cleanly(2, "both", self.mic, "-o", "-", "--plot", "/dev/stdout")

    def test_references_that_started_earlier_or_later(self):
        ref = self.folder / "ref.wav"
        sound = noise(5, 7) + [0] * 16000

        def enhance(samples, *arguments):
            """With this reference: the output and the delay that is reported."""
            ref.write_bytes(wav(pcm16(samples)))
            result = self.succeed(self.mic, "--ref", ref, "-o", self.out, "--stats=json", *arguments)
            return self.out.read_bytes(), json.loads(result.stdout)["echo_delay_ms"]

        def shifted(samples, shift):
            padded = [0] * max(shift, 0) + samples[max(-shift, 0):] + [0] * max(-shift, 0)
            return padded[:len(samples)]

        for delay in (-450, -60, 5, 90, 480):
            self.mic.write_bytes(wav(pcm16(shifted(sound, max(delay, 0) * 16))))
            given_ref = shifted(sound, max(-delay, 0) * 16)
            found, found_delay = enhance(given_ref)
            self.assertAlmostEqual(found_delay, delay, delta=2)
            # It is put 25 ms ahead of its echo, or left where it is if that will do.
            moved = shifted(given_ref, 0 if delay == 5 else int((found_delay - 25) * 16))
            self.assertEqual(enhance(moved, "--delay", "0")[0], found)
            set_, set_delay = enhance(given_ref, "--delay", str(delay))
            self.assertEqual(set_delay, delay)
            moved = shifted(given_ref, 0 if delay == 5 else (delay - 25) * 16)
            self.assertEqual(enhance(moved, "--delay", "0")[0], set_)
        self.fail_cleanly(2, "needs --ref", self.mic, "-o", self.out, "--delay", "3")
        self.fail_cleanly(2, "-500 to 500", self.mic, "--ref", ref, "-o", self.out, "--delay", "501")
        self.fail_cleanly(2, "not a whole number", self.mic, "--ref", ref, "-o", self.out, "--delay", "x")

    def test_several_recordings_do_not_depend_on_jobs_order_or_company(self):
        names = [f"take{i}" for i in range(5)]
        (self.folder / "in").mkdir()
        for i, name in enumerate(names):
            # Quiet takes among loud ones: they feed the denoiser's memory of quiet frames.
            samples = noise(2 + i % 2, i, level=2 if i % 2 else 5000)
            (self.folder / "in" / f"{name}.wav").write_bytes(wav(pcm16(samples)))
        (self.folder / "in" / "notes.txt").write_text("not a recording")
        files = [self.folder / "in" / f"{name}.wav" for name in names]
        self.succeed(self.folder / "in", "-o", self.folder / "one", "--jobs", 1)
        stats = self.succeed(*reversed(files), "-o", self.folder / "two", "--jobs", 2,
                             "--stats=json").stdout
        self.assertEqual([json.loads(line)["file"] for line in stats.splitlines()],
                         [str(file) for file in reversed(files)])
        for name, file in zip(names, files):
            alone = self.succeed(file, "-o", "-").stdout
            self.assertEqual((self.folder / "one" / f"{name}.wav").read_bytes(), alone, name)
            self.assertEqual((self.folder / "two" / f"{name}.wav").read_bytes(), alone, name)
        self.assertEqual(len(list((self.folder / "one").iterdir())), len(names))

        files[1].write_text("broken")
        (self.folder / "in" / "gone.wav").symlink_to("nowhere.wav")
        result = self.run_program(self.folder / "in", "-o", self.folder / "three")
        self.assertEqual(result.returncode, 3)
        self.assertEqual(result.stderr.count(b"\n"), 2)
        self.assertEqual(len(list((self.folder / "three").iterdir())), len(names) - 1)

    def test_references_for_several_recordings(self):
        for name in ("a", "b"):
            for place in ("mics", "refs"):
                (self.folder / place).mkdir(exist_ok=True)
                samples = noise(1, name + place)
                (self.folder / place / f"{name}.wav").write_bytes(wav(pcm16(samples)))
        mics, refs = self.folder / "mics", self.folder / "refs"
        self.succeed(mics, "--ref", refs, "-o", self.folder / "out", "--plot", self.folder / "plots")
        alone = self.succeed(mics / "b.wav", "--ref", refs / "b.wav", "-o", "-").stdout
        self.assertEqual((self.folder / "out" / "b.wav").read_bytes(), alone)
        self.assertTrue((self.folder / "plots" / "a.png").exists())

    def test_bad_input(self):
        def refuse(words, content, *arguments):
            bad = self.folder / "bad.wav"
            bad.write_bytes(content)
            self.fail_cleanly(3, words, bad, "-o", self.out, *arguments)
            self.fail_cleanly(3, words, "-", "-o", "-", *arguments, input=content)

        whole = self.mic.read_bytes()
        self.out.write_bytes(b"precious")
        self.fail_cleanly(3, "No such file", self.folder / "missing.wav", "-o", self.out)
        refuse("not readable as audio", b"just some text\n")
        refuse("not readable as audio", b"")
        refuse("holds no samples", wav(b""))
        refuse("not readable as audio", wav(pcm16(noise(0.1, 2)), channels=0))
        refuse("17 channels", wav(pcm16(noise(0.17, 2)), channels=17))
        for value in (float("nan"), float("inf")):
            samples = struct.pack("<1000f", *([0.1] * 999 + [value]))
            refuse("NaN or infinite", wav(samples, bits=32, tag=3))
        self.fail_cleanly(3, "more than the 2097152 bytes that --max-input allows", "/dev/zero", "-o",
                          self.out, "--max-input", "2M")
        self.fail_cleanly(3, "--max-input", "-", "-o", self.out, "--max-input", len(whole) - 1,
                          input=whole)
        self.succeed("-", "-o", "-", "--max-input", len(whole), input=whole)
        self.fail_cleanly(3, "enhance: standard input: cannot be read: Bad", "-", "-o", self.out,
                          preexec_fn=lambda: os.close(0))
        if os.geteuid() != 0:
            self.mic.chmod(0)
            self.fail_cleanly(3, "Permission denied", self.mic, "-o", self.out)

    def test_warnings(self):
        whole = wav(pcm16(noise(1, 7)))
        def announcing(size):
            return whole[:40] + struct.pack("<I", size) + whole[44:20000]
        for content, is_cut in ((whole, False), (whole[:20000], True), (announcing(0), False),
                                (announcing(0x7FFFF000), False), (announcing(0xFFFFFFFF), False)):
            result = self.succeed("-", "-o", self.out, "-q", input=content)
            self.assertEqual(len(self.out.read_bytes()), len(content))
            self.assertEqual(b"lacks the last 12044 bytes" in result.stderr, is_cut)
            self.assertEqual(result.stderr.count(b"\n"), int(is_cut))
        self.mic.write_bytes(wav(pcm16(noise(1, 8, level=32000))))
        result = self.succeed(self.mic, "-o", self.out, "-q", "--no-limiter", "--mode", "mix", "--residual", 0)
        self.assertIn(b"clip", result.stderr)

    def test_warning_of_samples_no_audio_has(self):
        def floats(loud):
            samples = [sample / 32768 for sample in noise(1, 9)]
            samples[100:100 + len(loud)] = loud
            return wav(struct.pack(f"<{len(samples)}f", *samples), tag=3, bits=32)
        ref = self.folder / "ref.wav"
        for mic_samples, ref_samples in (([16.0, -16.0], []), ([17.0], []), ([], [1e6, -1e20, 20.0])):
            self.mic.write_bytes(floats(mic_samples))
            ref.write_bytes(floats(ref_samples))
            lines = self.succeed(self.mic, "--ref", ref, "-o", self.out, "-q", "--limiter").stderr.splitlines()
            expected = [f"{file}: warning: {len(loud)} samples lie beyond" for file, loud in
                        ((self.mic, mic_samples), (ref, ref_samples)) if loud and max(loud) > 16]
            self.assertEqual(len(lines), len(expected), lines)
            for line, start in zip(lines, expected):
                self.assertIn(start.encode(), line)

    def test_bad_references(self):
        ref = self.folder / "ref.wav"
        for words, content in (("as long", wav(pcm16(noise(0.9, 3)))),
                               ("same rate", wav(pcm16(noise(1, 3)), rate=8000)),
                               ("mono", wav(pcm16(noise(2, 3)), channels=2)),
                               ("not readable", b"text")):
            ref.write_bytes(content)
            self.fail_cleanly(3, words, self.mic, "--ref", ref, "-o", self.out)
        self.fail_cleanly(3, "No such file", self.mic, "--ref", self.folder / "no.wav", "-o", self.out)

    def test_output_that_is_an_input(self):
        link, hard = self.folder / "link.wav", self.folder / "hard.wav"
        link.symlink_to("mic.wav")
        hard.hardlink_to(self.mic) if hasattr(hard, "hardlink_to") else os.link(self.mic, hard)
        ref = self.folder / "ref.wav"
        ref.write_bytes(self.mic.read_bytes())
        for output in (self.mic, link, hard, self.folder / "." / "mic.wav"):
            self.fail_cleanly(2, "is the input", self.mic, "-o", output)
        self.fail_cleanly(2, "is the input", self.mic, "--ref", ref, "-o", ref)
        self.fail_cleanly(2, "is the input", self.mic, "-o", self.out, "--plot", self.mic)
        self.fail_cleanly(2, "written twice", self.mic, "-o", self.out, "--plot", self.out)
        self.fail_cleanly(2, "is the input", self.mic, ref, "-o", self.folder)
        twins = [self.folder / place / "x.wav" for place in ("p", "q")]
        for twin in twins:
            twin.parent.mkdir()
            twin.write_bytes(self.mic.read_bytes())
        self.fail_cleanly(2, "written twice", *twins, "-o", self.folder / "r")
        (self.folder / "again").symlink_to(".")
        self.fail_cleanly(2, "written twice", self.mic, "-o", self.out,
                          "--plot", self.folder / "again" / "." / "out.wav")

    def test_replaced_output_keeps_its_permissions_and_links(self):
        real, link = self.folder / "real.wav", self.folder / "link.wav"
        real.write_bytes(b"old")
        real.chmod(0o640)
        link.symlink_to("real.wav")
        self.succeed(self.mic, "-o", link)
        self.succeed(self.mic, "-o", self.out, preexec_fn=lambda: os.umask(0o027))
        self.assertTrue(link.is_symlink())
        self.assertEqual(real.read_bytes(), self.out.read_bytes())

        def without(mask):
            os.umask(mask)
            refuse_files_without_name()
        other = self.folder / "other.wav"
        real.write_bytes(b"old")
        self.succeed(self.mic, "-o", other, preexec_fn=lambda: without(0o027))
        self.succeed("-", "-o", link, preexec_fn=lambda: without(0o022),
                     input=self.mic.read_bytes())
        self.assertEqual(real.read_bytes(), other.read_bytes())
        for path in (real, self.out, other):
            self.assertEqual(path.stat().st_mode & 0o777, 0o640)
        self.assertEqual({path.name for path in self.folder.iterdir()},
                         {"mic.wav", "out.wav", "real.wav", "link.wav", "other.wav"})

    def test_output_that_cannot_be_written(self):
        self.fail_cleanly(4, "No such file", self.mic, "-o", self.folder / "no" / "out.wav")
        self.fail_cleanly(4, "No space", self.mic, "-o", "/dev/full")
        for name, other in (("one", "two"), ("two", "one")):
            (self.folder / name).symlink_to(other)
        self.fail_cleanly(4, "Too many levels of symbolic links", self.mic, "-o", self.folder / "one")
        self.assertTrue((self.folder / "one").is_symlink())
        self.out.write_bytes(b"precious")
        for limit in (0, 20, 4096, 16384):
            self.fail_cleanly(
                4, "cannot be written", self.mic, "-o", self.out,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        self.fail_cleanly(
            4, "cannot be written", self.mic, "-o", self.out, "--plot", self.folder / "plot.png",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (40000, 40000)))
        with open("/dev/full", "wb") as full:
            result = subprocess.run([PROGRAM, self.mic, "-o", "-"], stdout=full,
                                    stderr=subprocess.PIPE)
        self.assertEqual(result.returncode, 4)
        if os.geteuid() != 0:
            self.folder.chmod(0o500)
            self.fail_cleanly(4, "Permission denied", self.mic, "-o", self.folder / "new.wav")
            self.folder.chmod(0o700)

    def test_a_reader_that_leaves(self):
        with subprocess.Popen([PROGRAM, self.mic, "-o", "-"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdout.close()
            self.assertEqual(process.wait(60), 4)
            self.assertIn(b"Broken pipe", process.stderr.read())

    def test_interruption_leaves_nothing_behind(self):
        self.out.write_bytes(b"precious")
        self.mic.write_bytes(wav(pcm16(noise(1, 4)) * 3000))
        others = [self.folder / "second.wav", self.folder / "third.wav"]
        for other in others:
            os.link(self.mic, other)
        for arguments in ([self.mic, "-o", self.out],
                          [self.mic, *others, "-o", self.folder / "into", "--jobs", "2"]):
            for number, prepare in ((signal.SIGINT, None), (signal.SIGKILL, None),
                                    (signal.SIGTERM, refuse_files_without_name)):
                before = self.content()
                process = subprocess.Popen([PROGRAM, *arguments], stdout=subprocess.PIPE,
                                           stderr=subprocess.PIPE, preexec_fn=prepare)
                deadline = time.monotonic() + 30
                while not self.is_writing(process.pid) and time.monotonic() < deadline:
                    time.sleep(0.02)
                self.assertTrue(self.is_writing(process.pid), "work has begun")
                process.send_signal(number)
                errors = process.communicate(timeout=60)[1]
                self.assertEqual(process.returncode,
                                 -number if number == signal.SIGKILL else 128 + number)
                if number != signal.SIGKILL:
                    self.assertIn(b"interrupted", errors)
                    self.assertEqual(errors.count(b"\n"), 1)
                self.assertEqual(self.content(), before)

    def is_writing(self, process):
        """Whether it, or a process that it started, has an output open, under whatever name."""
        task = pathlib.Path("/proc") / str(process)
        try:
            children = (task / "task" / str(process) / "children").read_text().split()
            files = [os.readlink(file) for file in (task / "fd").iterdir()]
        except OSError:
            return False
        inputs = {str(self.mic), str(self.folder / "second.wav"), str(self.folder / "third.wav")}
        return (any(f.startswith(str(self.folder)) and f not in inputs for f in files)
                or any(self.is_writing(child) for child in children))

    def test_progress_shows_on_a_terminal_only(self):
        self.mic.write_bytes(wav(pcm16(noise(1, 5)) * 60))
        reader, writer = pty.openpty()
        process = subprocess.Popen([PROGRAM, self.mic, "-o", self.out], stderr=writer)
        os.close(writer)
        seen = b""
        while True:
            try:
                chunk = os.read(reader, 4096)
            except OSError:
                break
            if not chunk:
                break
            seen += chunk
        os.close(reader)
        self.assertEqual(process.wait(), 0)
        self.assertIn(b"%", seen)
        self.assertTrue(seen.endswith(b"\r\x1b[K"), "the line is gone at the end")
        self.assertEqual(self.succeed(self.mic, "-o", self.out).stderr, b"")

    def test_usage_errors(self):
        preset = self.folder / "wrong.json"
        preset.write_text('{"two\\nlines": 11}')
        several = [self.mic, self.mic, "-o"]
        for words, arguments in (("need a folder", [*several, self.mic]),
                                 ("need a folder", [*several, "-"]),
                                 ("need a folder", [*several, self.folder / "x", "--plot", "-"]),
                                 ("unknown key", [self.mic, "-o", self.out, "-p", preset]),
                                 ("name it", [self.mic, "-o", self.folder / "out.flac"]),
                                 ("out.png", [self.mic, "-o", self.out, "--plot", "out.jpg"])):
            self.fail_cleanly(2, words, *arguments)
        self.succeed(self.mic, "-o", self.folder / "no_suffix")

    def test_commands_are_the_first_argument_and_files_of_their_names_need_a_path(self):
        (self.folder / "batch").write_bytes(self.mic.read_bytes())
        self.succeed(self.mic, "-o", self.out)
        for arguments in (["./batch", "-o", "a.wav"], ["-o", "a.wav", "batch"]):
            self.succeed(*arguments, cwd=self.folder)
            self.assertEqual((self.folder / "a.wav").read_bytes(), self.out.read_bytes())
        self.fail_cleanly(2, "see --help", "batch", "-o", "b.wav", cwd=self.folder)
        self.assertIn(b"  batch ", self.succeed("--help").stdout)


if __name__ == "__main__":
    unittest.main()
