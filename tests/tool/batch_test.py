"""speech-enhance batch as its users run it: against plain runs, killed and restarted, in shards, with
manifests that nobody should trust.

usage: batch_test.py PATH-OF-SPEECH-ENHANCE
"""

import hashlib
import json
import os
import resource
import shutil
import signal
import subprocess
import time
import unittest

from program_test import PROGRAM, ProgramCase, noise, pcm16, wav


class BatchTest(ProgramCase):
    def setUp(self):
        super().setUp()
        self.corpus, self.results_folder = self.folder / "corpus", self.folder / "clean"
        self.manifest = self.folder / "m.jsonl"

    def make_corpus(self, count, seconds=0.3):
        """Quiet takes among loud ones: they would feed the denoiser's memory of quiet frames."""
        for i in range(count):
            path = self.corpus / "ab"[i % 2] / f"take{i}.wav"
            path.parent.mkdir(parents=True, exist_ok=True)
            samples = noise(seconds * (1 + i % 3), i, level=2 if i % 3 else 5000)
            path.write_bytes(wav(pcm16(samples), rate=(16000, 8000)[i % 2]))
        self.succeed("batch", "--from-folder", self.corpus, self.manifest)
        return sorted(self.corpus.rglob("*.wav"))

    def write_manifest(self, *lines):
        self.manifest.write_text("".join(line if isinstance(line, str) else json.dumps(line) + "\n"
                                         for line in lines))

    def batch(self, *arguments, code=0, **options):
        result = self.run_program("batch", self.manifest, "--out", self.results_folder, *arguments,
                                  **options)
        self.assertEqual(result.returncode, code, result.stderr.decode())
        return result.stderr.decode()

    def results(self):
        lines = [json.loads(line) for path in sorted(self.results_folder.glob("results*.jsonl"))
                 for line in path.read_text().splitlines()]
        return {line.get("path", f"line {line.get('line')}"): line for line in lines}, len(lines)

    def plain(self, path, *arguments):
        return self.succeed(path, "-o", "-", *arguments).stdout

    def sounds(self):
        return {path.relative_to(self.results_folder): path.read_bytes()
                for path in self.results_folder.rglob("*") if path.suffix in (".wav", ".flac")}

    def test_results_are_those_of_plain_runs_and_the_manifest_says_all_about_them(self):
        files = self.make_corpus(7)
        (self.corpus / "b" / "broken.wav").write_text("no sound")
        self.succeed("batch", "--from-folder", self.corpus, self.manifest)
        said = self.batch("--jobs", 2, "--limiter", code=3)
        self.assertIn("8 recordings: 7 cleaned", said)
        self.assertIn("1 failed", said)
        results, lines = self.results()
        self.assertEqual(lines, 8)
        self.assertEqual(len(self.sounds()), 7)
        for path in files:
            sound = (self.results_folder / path.relative_to(self.corpus)).read_bytes()
            self.assertEqual(sound, self.plain(path, "--limiter"), path)
            line = results[str(path)]
            self.assertEqual(line["sha256"], hashlib.sha256(sound).hexdigest())
            figures = json.loads(self.run_program(path, "-o", "/dev/null", "--stats=json",
                                                  "--limiter").stdout)
            for name in ("duration_s", "level_in_dbfs", "background_out_dbfs", "attenuation_db",
                         "echo_reduction_db", "clipped_samples"):
                self.assertEqual(line[name], figures[name])
            self.assertEqual(line["settings"]["limiter"], {"ceiling": 0.95, "gain_db": 0.0})
            self.assertIn(line["version"], self.succeed("--version").stdout.decode())
        failed = results[str(self.corpus / "b" / "broken.wav")]
        self.assertIn("not readable as audio", failed["error"])
        self.assertEqual(failed["code"], 3)

    def test_tsv_fields_parts_and_references(self):
        samples, echo = noise(2, 1), noise(2, 2)
        self.corpus.mkdir()
        (self.corpus / "long.wav").write_bytes(wav(pcm16(samples)))
        (self.corpus / "far.wav").write_bytes(wav(pcm16(echo)))
        self.manifest = self.corpus / "m.tsv"
        self.write_manifest("path\tspeaker\toffset\tduration\treference\tout\n",
                            "long.wav\tAnna\t0.5\t1.0\t\t\n",
                            "long.wav\tBert\t1\t1.005\tfar.wav\tsub/x.y\n",
                            "long.wav\tCleo\t0.5\t9\t\tz\n", "long.wav\tDora\t2\t\t\tz\n")
        self.batch(code=3)
        lines = [json.loads(line)
                 for line in (self.results_folder / "results.jsonl").read_text().splitlines()]
        self.assertEqual(sorted((line["speaker"], line.get("error", "")[:18]) for line in lines),
                         [("Anna", ""), ("Bert", ""), ("Cleo", "the segment ends a"),
                          ("Dora", "its result would b")])
        parts = {"long-500.wav": (8000, 24000, False), "sub/x.y.wav": (16000, 32000, True)}
        self.assertEqual({str(name) for name in self.sounds()}, set(parts))
        for name, (start, end, has_reference) in parts.items():
            self.mic.write_bytes(wav(pcm16(samples[start:end])))
            self.out.write_bytes(wav(pcm16(echo[start:end])))
            reference = ["--ref", self.out] if has_reference else []
            self.assertEqual((self.results_folder / name).read_bytes(),
                             self.plain(self.mic, *reference))

    def test_flac_holds_the_same_samples(self):
        self.make_corpus(3)
        self.batch("--format", "flac")
        for name, sound in self.sounds().items():
            self.assertEqual(sound[:4], b"fLaC")
            # Both decoded by the tool's own reader: equal in, equal out.
            original = self.corpus / name.with_suffix(".wav")
            self.out.write_bytes(self.plain(original))
            self.assertEqual(self.plain(self.results_folder / name), self.plain(self.out))
        self.fail_cleanly(2, "--format wav", "batch", self.manifest, "--out", self.folder / "f",
                          "--format", "flac", "--float")

    def test_shards_divide_the_work_evenly_and_follow_slurm(self):
        self.make_corpus(40, seconds=0.02)
        whole = {}
        for i in range(1, 5):
            if i == 2:
                environment = {"SLURM_ARRAY_TASK_ID": "12", "SLURM_ARRAY_TASK_MIN": "10",
                               "SLURM_ARRAY_TASK_MAX": "16", "SLURM_ARRAY_TASK_STEP": "2",
                               "SLURM_ARRAY_TASK_COUNT": "4"}
                self.batch("-q", env={**os.environ, **environment})
            else:
                self.batch("-q", "--shard", f"{i}/4")
            part = (self.results_folder / f"results-{i}-of-4.jsonl").read_text().splitlines()
            for line in map(json.loads, part):
                self.assertNotIn(line["path"], whole)
                whole[line["path"]] = line["duration_s"], i
        self.assertEqual(len(whole), 40)
        loads = [sum(s for s, shard in whole.values() if shard == i) for i in range(1, 5)]
        self.assertLessEqual(max(loads) - min(loads), 2 * max(s for s, _ in whole.values()))
        # In other shards, or in none, nothing is left to do.
        self.assertIn("0 cleaned", self.batch("--skip-existing", "--shard", "2/3"))
        self.assertIn("0 cleaned, 40 there", self.batch("--skip-existing"))
        for words, shard in (("1/N to N/N", "0/4"), ("1/N to N/N", "5/4"), ("I/N", "4")):
            self.fail_cleanly(2, words, "batch", self.manifest, "--out", self.folder / "x",
                              "--shard", shard)
        gaps = {**os.environ, "SLURM_ARRAY_TASK_ID": "3", "SLURM_ARRAY_TASK_MIN": "1",
                "SLURM_ARRAY_TASK_MAX": "9", "SLURM_ARRAY_TASK_COUNT": "2"}
        self.fail_cleanly(2, "gaps", "batch", self.manifest, "--out", self.folder / "x", env=gaps)

    def test_killed_and_started_again_it_loses_nothing_and_repeats_nothing(self):
        files = self.make_corpus(30)
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGINT):
            shutil.rmtree(self.results_folder, ignore_errors=True)
            process = subprocess.Popen([PROGRAM, "batch", self.manifest, "--out",
                                        self.results_folder, "--jobs", "2"],
                                       stderr=subprocess.PIPE)
            finished = self.results_folder / "results.jsonl"
            deadline = time.monotonic() + 60
            while time.monotonic() < deadline and (
                    not finished.exists() or finished.read_bytes().count(b"\n") < 8):
                time.sleep(0.005)
            process.send_signal(number)
            said = process.communicate(timeout=60)[1].decode()
            if number != signal.SIGKILL:
                self.assertEqual(process.returncode, 128 + number, said)
                self.assertIn("left to do", said)
            with open(finished, "ab") as torn:
                torn.write(b'{"id":"12')
            before = [line for line in finished.read_bytes().splitlines()[:-1]]
            self.assertLess(len(before), 30)
            said = self.retry_while_locked("--skip-existing")
            results, lines = self.results()
            self.assertEqual((len(results), lines), (30, 30))
            self.assertIn(f"{30 - len(before)} cleaned", said)
            self.assertEqual(finished.read_bytes().splitlines()[:len(before)], before)
            self.assertEqual(len(self.sounds()), 30)
            for path in files[::5]:
                sound = (self.results_folder / path.relative_to(self.corpus)).read_bytes()
                self.assertEqual(sound, self.plain(path))

    def retry_while_locked(self, *arguments):
        """Workers of a killed parent end on their own, and soon."""
        deadline = time.monotonic() + 30
        while True:
            result = self.run_program("batch", self.manifest, "--out", self.results_folder, *arguments)
            if b"another process" not in result.stderr or time.monotonic() > deadline:
                self.assertEqual(result.returncode, 0, result.stderr.decode())
                return result.stderr.decode()
            time.sleep(0.1)

    def test_only_what_is_finished_under_the_same_settings_is_trusted(self):
        files = self.make_corpus(6)
        (self.corpus / "a" / "take0.wav").write_text("broken")
        self.batch(code=3)
        self.fail_cleanly(2, "--skip-existing", "batch", self.manifest, "--out", self.results_folder)
        sounds = sorted(self.results_folder.rglob("*.wav"))
        good = sounds[0].read_bytes()
        sounds[0].write_bytes(good[:-2])
        sounds[1].unlink()
        said = self.batch("--skip-existing", code=3)
        self.assertIn("2 cleaned", said)
        self.assertIn("3 there already, 1 failed (1 of them earlier", said)
        self.assertEqual(sounds[0].read_bytes(), good)
        files[0].write_bytes(wav(pcm16(noise(0.3, 50))))
        self.assertIn("0 cleaned, 5 there", self.batch("--skip-existing", code=3))
        self.assertIn("1 cleaned", self.batch("--retry-failed"))
        self.assertEqual(self.results()[1], 6)
        self.assertIn("6 cleaned", self.batch("--skip-existing", "--no-limiter"))
        self.assertEqual(self.results()[1], 6)
        self.assertIn("6 cleaned", self.batch("--overwrite"))

    def test_manifests_that_lie(self):
        self.make_corpus(2)
        outside = self.folder / "outside"
        outside.mkdir()
        self.results_folder.mkdir()
        (self.results_folder / "link").symlink_to(outside)
        os.mkfifo(self.folder / "pipe.wav")
        good = str(self.corpus / "a" / "take0.wav")
        own = self.results_folder / "own.wav"
        own.write_bytes((self.corpus / "a" / "take0.wav").read_bytes())
        precious = own.read_bytes()
        lines = {
            "leads out of the output folder or names": [
                {"path": good, "out": out} for out in
                ("../x", "/etc/x", "a/../../x", "..", ".", "a/..", "a/", "./")],
            "through a link": [{"path": good, "out": "link/x"}],
            "needs an `out`": [{"path": "../x.wav"}],
            "hidden": [{"path": good, "out": "a/.x"}],
            "would replace": [{"path": str(own), "out": "./own.flac"}],
            "written twice": [{"path": good, "out": "q"}, {"path": good, "out": "a/../q.wav"}],
            "not a regular file": [{"path": "pipe.wav"}, {"path": "/dev/zero", "out": "z"},
                                   {"path": str(self.corpus), "out": "c"}],
            "No such file": [{"path": "-"}, {"path": "no\nsuch.wav"}],
            "NUL": ['{"path": "a\\u0000b"}\n'],
            "is not a text": [{"path": 7}, {"path": good, "out": ["x"]}],
            "has no `path`": [{"file": good}],
            "out of range": [{"path": good, "offset": -1}, {"path": good, "offset": 1e300}],
            "begins at": [{"path": good, "offset": 1e6}],
            "is not a number": [{"path": good, "offset": "x"}, {"path": good, "duration": [1]}],
            "twice": ['{"path": "a", "path": "b"}\n'],
            "nested": ['{"path": "a", "x": ' + "[" * 30000 + "]" * 30000 + "}\n"],
            "longer than": ['{"path": "' + "a" * 70000 + '"}\n'],
            "not valid JSON": ["{\n", "nonsense\n", '{"path": "\xff"}\n', '{"x": 1e999}\n'],
            "not a JSON object": ["[1]\n"],
        }
        for words, group in lines.items():
            self.write_manifest({"path": good, "out": "fine"}, *group)
            if "\xff" in str(group):
                self.manifest.write_bytes(self.manifest.read_bytes().replace(b"\xc3\xbf", b"\xff"))
            before = self.content()
            self.batch("--overwrite", code=3)
            errors = [line["error"] for line in map(json.loads, (
                self.results_folder / "results.jsonl").read_text().splitlines()) if "error" in line]
            expected = len(group) - (words == "written twice")
            self.assertEqual(len(errors), expected, (words, errors))
            self.assertTrue(all(words in error and "\n" not in error for error in errors), errors)
            made = {str(path) for path in set(self.content()) - set(before)}
            self.assertLessEqual(made, {"clean/fine.wav", "clean/results.jsonl", "clean/q.wav"})
            self.assertEqual(own.read_bytes(), precious)
        self.assertEqual(list(outside.iterdir()), [])
        for words, text in (("empty", ""), ("`path` among", "name\tlength\n"), ("twice", "path\tpath\n")):
            self.manifest.write_text(text)
            result = self.run_program("batch", self.manifest, "--out", self.folder / "new")
            self.assertEqual(result.returncode, 3)
            self.assertIn(words, result.stderr.decode())

    def test_what_the_disk_refuses_is_tried_again(self):
        files = self.make_corpus(4)
        for path in files:
            path.write_bytes(wav(pcm16(noise(1, str(path)))))
        self.succeed("batch", "--from-folder", self.corpus, self.manifest)
        loud = ("--mode", "mix", "--residual", 0, "--skip-existing", "--format")
        for form in ("wav", "flac"):
            shutil.rmtree(self.results_folder, ignore_errors=True)
            self.batch(*loud, form, code=4, preexec_fn=lambda: resource.setrlimit(
                resource.RLIMIT_FSIZE, (8000, 8000)))
            self.assertEqual(len(self.sounds()), 0)
            self.assertIn("4 cleaned", self.batch(*loud, form))
            self.assertEqual(self.results()[1], 4)

    def test_report(self):
        self.corpus.mkdir()
        evil = '<script src=x>&"\'.wav'
        (self.corpus / "talk.wav").write_bytes(wav(pcm16(noise(2, 1, level=32000))))
        (self.corpus / "soft.wav").write_bytes(wav(pcm16(noise(1, 2, level=1000))))
        (self.corpus / "quiet.wav").write_bytes(wav(bytes(32000)))
        (self.corpus / "broken1.wav").write_text("1")
        self.write_manifest(*({"path": f"corpus/{name}.wav", "out": out} for name, out in (
            ("talk", evil), ("soft", "soft"), ("quiet", "quiet"), ("broken1", "b1"),
            ("gone1", "g1"), ("gone2", "g2"))))
        self.batch("--no-limiter", "--mode", "mix", "--residual", 0, code=3)
        (self.corpus / "broken1.wav").write_bytes(wav(pcm16(noise(1, 3))))
        copy = (self.results_folder / "results.jsonl").read_text()
        self.batch("--no-limiter", "--mode", "mix", "--residual", 0, "--retry-failed", code=3)
        # An earlier state of the same folder beside it, and a line that was cut: counted once.
        (self.results_folder / "results-old.jsonl").write_text(copy + '{"id"')
        page = self.folder / "report.html"
        figures = json.loads(self.succeed("summarise", self.results_folder, "--html", page,
                                          "--json", "-").stdout)
        for name, value in {"files": 6, "cleaned": 4, "failed": 2, "silent_inputs": 1,
                            "results_that_clip": 1, "broken_lines": 1}.items():
            self.assertEqual(figures[name], value, name)
        self.assertAlmostEqual(figures["hours"], 5 / 3600)
        self.assertEqual([(f["reason"], f["count"]) for f in figures["failures"]],
                         [("cannot be opened: No such file or directory", 2)])
        level = next(d for d in figures["distributions"] if d["figure"] == "level_in_dbfs")
        self.assertEqual((level["count"], sum(level["bins"])), (3, 3))
        self.assertEqual(level["strangest"][0]["out"], evil)
        html = page.read_text()
        self.assertNotIn("<script src", html)
        self.assertIn("&lt;script src=x&gt;&amp;&quot;&#39;", html)
        self.assertEqual(html.count("<audio"), 2 * 4)
        self.assertEqual(html.count("data:audio/flac"), 2 * 4)
        self.assertEqual(html.count('src="data:'), 3 * 4)
        self.assertNotIn("http", html)
        (self.corpus / "soft.wav").unlink()
        self.succeed("summarise", self.results_folder / "results.jsonl", "--html", page)
        self.assertIn("soft.wav: is not there", page.read_text())
        self.fail_cleanly(3, "no results", "summarise", self.manifest)
        self.fail_cleanly(3, "holds no results", "summarise", self.corpus)

    def test_progress_is_a_line_now_and_then(self):
        self.make_corpus(30)
        said = self.batch("--report-every", 0.1, "--jobs", 1)
        self.assertRegex(said, r"\d+ of 30 files, .* of audio")
        self.assertEqual(self.batch("--overwrite").count("\n"), 1, "one line a minute, here none")


if __name__ == "__main__":
    unittest.main()
