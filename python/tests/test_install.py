"""cmake --install puts the module into the interpreter's site-packages under the prefix, where
it imports without the build tree (it finds the installed library through its run path)."""
import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile


def test_installed_module_imports_from_the_prefix():
    build = os.environ["NK_BINARY_DIR"]
    prefix = tempfile.mkdtemp(prefix="nkpy-install-")
    try:
        subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True, capture_output=True,
                       timeout=300)
        found = [root for root, dirs, files in os.walk(prefix)
                 if os.path.basename(root) == "nkprotocol" and "__init__.py" in files]
        assert len(found) == 1, found
        site = os.path.dirname(found[0])
        # The same place, relative to the prefix, that the interpreter itself installs into.
        default = sysconfig.get_path("platlib")
        assert default.endswith(os.path.relpath(site, prefix)), (default, site)
        assert {"_nkprotocol.pyi", "py.typed", "station.py"} <= set(os.listdir(found[0]))
        check = ("import nkprotocol as nk, sys; m = nk.Message.parse(nk.MessageTime(1, currentTime=7).to_bytes());"
                 "sys.exit(0 if m.currentTime == 7 and nk.__file__.startswith(sys.argv[1]) else 1)")
        env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "LD_LIBRARY_PATH")}
        env["PYTHONPATH"] = site
        run = subprocess.run([sys.executable, "-c", check, prefix], env=env, cwd=prefix, capture_output=True,
                             text=True, timeout=60)
        assert run.returncode == 0, run.stderr
    finally:
        shutil.rmtree(prefix, ignore_errors=True)
