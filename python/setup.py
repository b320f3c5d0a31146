"""Records, in the installed package, what it takes from this checkout, and
says where the package's library comes from.

The package's version and the pixel limits of pictures are defined in the
C sources (see ostrel/_c_headers.py); they are read here: the version is the
distribution's, and the limits are written into ostrel/_header_values.py,
so that an installed package needs no checkout.

Where the installed package finds libostrel_alg (see ostrel/_library.py)
depends on OSTREL_PACKAGE_LIBRARY when it is built:

- unset: an install from this checkout for development; the checkout's
  build/ folder is written into ostrel/_build_tree.py and searched first.
- ``system``: the library is installed by the system (the Debian package);
  the package loads it by its soname and records no checkout.
- the path of a built libostrel_alg: the file is carried inside the package
  (ostrel/_lib/), as in the wheel, which is then made for this platform.
"""
import os
import runpy
import shutil

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

try:
    from wheel.bdist_wheel import bdist_wheel
except ImportError:  # no wheel package: wheels cannot be built, installs still work
    bdist_wheel = None

HERE = os.path.dirname(os.path.abspath(__file__))
CHECKOUT = os.path.dirname(HERE)
CHECKOUT_BUILD_DIR = os.path.join(CHECKOUT, "build")
PACKAGE_LIBRARY = os.environ.get("OSTREL_PACKAGE_LIBRARY", "")
SYSTEM_LIBRARY = "system"

_names = runpy.run_path(os.path.join(HERE, "ostrel", "_c_headers.py"))
# Loaded from its file alone: importing the package here would need its
# dependencies at build time.
HEADER_VALUES = _names["read_values"](CHECKOUT)
VERSION = "{VERSION_MAJOR}.{VERSION_MINOR}.{VERSION_PATCH}".format(**HEADER_VALUES)
# The file name the package loads a carried library by (ostrel/_library.py).
LIBRARY_SONAME = runpy.run_path(os.path.join(HERE, "ostrel", "_library_names.py"))["names"](
    HEADER_VALUES["VERSION_MAJOR"])[1]


def _carries_library() -> bool:
    return PACKAGE_LIBRARY not in ("", SYSTEM_LIBRARY)


class BuildPyWithBuildTree(build_py):
    def run(self) -> None:
        super().run()
        package = os.path.join(self.build_lib, "ostrel")
        build_tree = os.path.join(package, "_build_tree.py")
        if PACKAGE_LIBRARY:
            if os.path.exists(build_tree):  # left by an earlier install from the checkout
                os.remove(build_tree)
        else:
            with open(build_tree, "w", encoding="utf-8") as file:
                file.write('"""Written at install time: the build folder of the checkout the package came from."""\n')
                file.write(f"BUILD_DIR = {CHECKOUT_BUILD_DIR!r}\n")
        carried = os.path.join(package, "_lib")
        shutil.rmtree(carried, ignore_errors=True)
        if _carries_library():
            if not os.path.isfile(PACKAGE_LIBRARY):
                raise SystemExit(f"OSTREL_PACKAGE_LIBRARY: no such file: {PACKAGE_LIBRARY}")
            os.makedirs(carried)
            shutil.copyfile(PACKAGE_LIBRARY, os.path.join(carried, LIBRARY_SONAME))
        target = os.path.join(package, "_header_values.py")
        with open(target, "w", encoding="utf-8") as file:
            file.write('"""Written at install time from the C sources of the checkout (see _c_headers.py)."""\n')
            for name, value in sorted(HEADER_VALUES.items()):
                file.write(f"{name} = {value}\n")


class PackageDistribution(Distribution):
    def has_ext_modules(self) -> bool:
        # A package that carries the library is installed, and wheeled, as
        # one for this platform.
        return _carries_library()


commands = {"build_py": BuildPyWithBuildTree}

if bdist_wheel is not None:
    class PlatformWheel(bdist_wheel):
        """A wheel that carries the library is for this platform (any
        Python 3: the package reaches the library through ctypes)."""

        def get_tag(self):
            python, abi, platform = super().get_tag()
            if _carries_library():
                return "py3", "none", platform
            return python, abi, platform

    commands["bdist_wheel"] = PlatformWheel

setup(version=VERSION, cmdclass=commands, distclass=PackageDistribution)
