"""The held-out scenes that scores are taken on: fixed by a seed, the same for every processor."""

import dataclasses

import numpy as np

from training.audio import Material
from training.library import SHAPE
from training.scenes import Mixer, Plan, Scene

SNRS = (-5, 0, 5, 10, 15, 20)
SECONDS = 8


@dataclasses.dataclass(frozen=True)
class Condition:
    name: str
    plan: Plan
    first_second: float  # scores start here


def plan(**changes) -> Plan:
    base = dict(talks=True, noise="real", far_end=False, snr=40.0, echo=-np.inf, level=-32.0,
                clip=False, dead_microphone=False, digital_silence=False, path_change=False,
                mild_loudspeaker=True)
    return Plan(**(base | changes))


CONDITIONS = (
    *(Condition(f"snr {snr}", plan(snr=float(snr)), 1.0) for snr in SNRS),
    Condition("synthetic noise", plan(noise="synthetic", snr=5.0), 1.0),
    Condition("late talker", plan(snr=10.0, begins=0.5), 1.0),
    Condition("telephone band", plan(snr=5.0, bandwidth=3400.0), 1.0),
    Condition("noise only", plan(talks=False, level=-38.0), 1.0),
    Condition("clean", plan(snr=40.0, dry=True), 1.0),
    Condition("clean in a room", plan(snr=40.0), 1.0),
    Condition("clean, quiet", plan(snr=40.0, level=-50.0), 1.0),
    Condition("far end only", plan(talks=False, noise="none", far_end=True, echo=0.0), 2.0),
    Condition("double talk", plan(far_end=True, echo=0.0, snr=40.0), 2.0),
)


def held_out_scenes(cache, condition: Condition, count: int) -> list[Scene]:
    material = Material(cache, "near")
    seed = [20, *condition.name.encode()]
    mixer = Mixer(material, SHAPE.sample_rate, seed, vary_noise=False)
    return [mixer.scene(SECONDS * SHAPE.sample_rate, condition.plan) for _ in range(count)]
