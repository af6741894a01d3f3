"""Builds libspeechenhance-stream with CMake into the package.

One wheel holds for every Python of a platform. For AArch64 from another machine:
SPEECHENHANCE_TOOLCHAIN=cmake/aarch64.cmake python3 -m build --wheel --no-isolation

With SPEECHENHANCE_WITHOUT_LIBRARY set, the package takes the system's library: for distributions.
"""

import os
import re
import shutil
import subprocess
from pathlib import Path

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py
from setuptools.command.sdist import sdist
from wheel.bdist_wheel import bdist_wheel

HERE = Path(__file__).resolve().parent
# The C++ sources: beside this folder in a checkout, inside it in a source distribution.
ENGINE = HERE / "engine" if (HERE / "engine").is_dir() else HERE.parent
ENGINE_FILES = ["CMakeLists.txt", "cmake", "include", "models/denoiser.bin", "packaging", "presets", "src",
                "stream"]
TOOLCHAIN = os.environ.get("SPEECHENHANCE_TOOLCHAIN")
LIBRARY = "libspeechenhance-stream.so"
WITHOUT_LIBRARY = bool(os.environ.get("SPEECHENHANCE_WITHOUT_LIBRARY"))


def version() -> str:
    found = re.search(r"project\(speechenhance VERSION ([0-9.]+)", (ENGINE / "CMakeLists.txt").read_text())
    if found is None:
        raise SystemExit(f"{ENGINE}/CMakeLists.txt states no version")
    return found[1]


class BuildWithLibrary(build_py):
    def run(self) -> None:
        super().run()
        if WITHOUT_LIBRARY:
            return
        build = Path(self.get_finalized_command("build").build_temp).resolve() / "engine"
        configure = ["cmake", "-S", str(ENGINE), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                     "-DSE_BUILD_STREAM=ON", "-DSE_STREAM_STANDALONE=ON"]
        configure += [f"-DSE_{part}=OFF" for part in ("BUILD_ADAPTERS", "BUILD_TOOL", "BUILD_TESTS", "INSTALL")]
        if TOOLCHAIN:
            configure.append(f"-DCMAKE_TOOLCHAIN_FILE={ENGINE / TOOLCHAIN}")
        subprocess.run(configure, check=True)
        subprocess.run(["cmake", "--build", str(build), "--target", "speechenhance_stream", "--parallel"],
                       check=True)
        shutil.copyfile(build / "stream" / LIBRARY, Path(self.build_lib) / "speechenhance" / LIBRARY)


class WheelOfAnyPython(bdist_wheel):
    def finalize_options(self) -> None:
        if TOOLCHAIN:
            self.plat_name = "linux_" + Path(TOOLCHAIN).stem
            self.plat_name_supplied = True
        super().finalize_options()

    def get_tag(self) -> "tuple[str, str, str]":
        return "py3", "none", super().get_tag()[2]


class PlatformDistribution(Distribution):
    def has_ext_modules(self) -> bool:
        return not WITHOUT_LIBRARY


class SourcesWithEngine(sdist):
    def make_release_tree(self, base_dir: str, files: "list[str]") -> None:
        super().make_release_tree(base_dir, files)
        for name in ENGINE_FILES:
            target = Path(base_dir) / "engine" / name
            target.parent.mkdir(parents=True, exist_ok=True)
            if (ENGINE / name).is_dir():
                shutil.copytree(ENGINE / name, target, ignore=shutil.ignore_patterns("tests"))
            else:
                shutil.copyfile(ENGINE / name, target)


setup(version=version(), distclass=PlatformDistribution,
      cmdclass={"build_py": BuildWithLibrary, "bdist_wheel": WheelOfAnyPython, "sdist": SourcesWithEngine})
