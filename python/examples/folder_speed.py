"""How much two or more threads gain over one on a folder's worth of recordings.

usage: folder_speed.py [THREADS]
"""

import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import speechenhance

RATE, SECONDS, RECORDINGS, RUNS = 16000, 10, 32, 5
threads = int(sys.argv[1]) if len(sys.argv) > 1 else os.cpu_count() or 1
recordings = 0.1 * np.random.default_rng(1).standard_normal((RECORDINGS, SECONDS * RATE), dtype=np.float32)


def seconds(workers: int) -> float:
    start = time.perf_counter()
    with ThreadPoolExecutor(workers) as pool:
        list(pool.map(lambda mic: speechenhance.enhance(mic, RATE), recordings))
    return time.perf_counter() - start


pairs = [(seconds(1), seconds(threads)) for _ in range(RUNS)]
one, many = np.median(pairs, axis=0)
print(f"{RECORDINGS * SECONDS} s of sound: {one:.2f} s with one thread, {many:.2f} s with {threads} "
      f"({np.median([a / b for a, b in pairs]):.2f} times as fast); {RECORDINGS * SECONDS / many:.0f} times real time")
