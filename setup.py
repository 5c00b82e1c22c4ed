"""For `pip install .`: CMake builds the module and the libraries, which lie beside it."""

import pathlib
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

TOP = pathlib.Path(__file__).resolve().parent
HEADER = (TOP / "include/vlx/VlxVersion.hpp").read_text()
OFF = ("TOOLS", "GST", "ALSA", "EXAMPLES", "TESTS", "STRESS")


class Build(build_ext):
    def run(self):
        build = pathlib.Path(self.build_temp).resolve()
        prefix = pathlib.Path(self.build_lib).resolve()
        options = [f"-DVLX_BUILD_{part}=OFF" for part in OFF]
        options += [f"-DPython_EXECUTABLE={sys.executable}", "-DVLX_BUILD_PYTHON=ON"]
        options += ["-DVLX_PYTHON_DIR=.", "-DCMAKE_INSTALL_LIBDIR=vellox"]
        options += [f"-DCMAKE_INSTALL_PREFIX={prefix}", "-DCMAKE_BUILD_TYPE=Release"]
        subprocess.check_call(["cmake", "-S", TOP, "-B", build, "-G", "Ninja", *options])
        subprocess.check_call(["cmake", "--build", build])
        for component in "runtime", "python":
            subprocess.check_call(["cmake", "--install", build, "--component", component])
        shutil.rmtree(prefix / "lib")  # what systemd wants to know


setup(
    version=".".join(re.findall(r"VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", HEADER)),
    packages=[],
    ext_modules=[Extension("vellox._core", [])],
    cmdclass={"build_ext": Build},
)
