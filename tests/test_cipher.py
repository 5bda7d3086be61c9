"""Stored mail passwords, checked against an independent AES implementation.

The driver program runs the real password cipher with a key file given on
its command line; python3-cryptography decrypts what it stores and encrypts
texts for it to decrypt. The stored form is
"$AES-256-CBC:PKCS$<base64 IV>$<base64 AES-256-CBC data, PKCS#7 padded>",
keyed with the first 32 bytes of the key file.
"""

import base64
import os
import subprocess
from pathlib import Path

import pytest
from cryptography.hazmat.primitives import padding
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

REPO = Path(__file__).resolve().parent.parent
DRIVER = Path(os.environ.get("CIPHER_DRIVER")
              or REPO / "build" / "tests" / "drivers" / "cipher_driver")
PREFIX = "$AES-256-CBC:PKCS$"

PASSWORDS = ["x", "exactly sixteen!", "p\u00e4ss w\u00f6rd with $ and : inside",
             "a much longer password that spans several cipher blocks " * 3]


def run_driver(*args):
    if not os.access(DRIVER, os.X_OK):
        pytest.fail("cipher driver not found at %s: build it first "
                    "(ninja -C build) or set CIPHER_DRIVER" % DRIVER)
    return subprocess.run([str(DRIVER), *args], capture_output=True, text=True, timeout=30)


def driver_ok(*args):
    res = run_driver(*args)
    assert res.returncode == 0, res.stderr
    assert res.stdout.endswith("\n") and res.stdout.count("\n") == 1, res.stdout
    return res.stdout[:-1]


def python_encrypt(key, iv, password):
    padder = padding.PKCS7(128).padder()
    data = padder.update(password.encode()) + padder.finalize()
    encryptor = Cipher(algorithms.AES(key), modes.CBC(iv)).encryptor()
    return encryptor.update(data) + encryptor.finalize()


def python_decrypt(key, stored):
    assert stored.startswith(PREFIX), stored
    iv_text, sep, data_text = stored[len(PREFIX):].partition("$")
    assert sep == "$" and len(iv_text) == 24 and iv_text.endswith("=="), stored
    iv = base64.b64decode(iv_text, validate=True)
    data = base64.b64decode(data_text, validate=True)
    assert len(data) % 16 == 0 and data
    decryptor = Cipher(algorithms.AES(key), modes.CBC(iv)).decryptor()
    padded = decryptor.update(data) + decryptor.finalize()
    unpadder = padding.PKCS7(128).unpadder()
    return (unpadder.update(padded) + unpadder.finalize()).decode()


@pytest.fixture
def key_file(tmp_path):
    """A key file longer than the key: only its first 32 bytes are the key."""
    path = tmp_path / "passwd_db_key"
    path.write_bytes(os.urandom(48))
    return path


def stored_form(key, iv, password):
    return "%s%s$%s" % (PREFIX, base64.b64encode(iv).decode(),
                        base64.b64encode(python_encrypt(key, iv, password)).decode())


@pytest.mark.parametrize("password", PASSWORDS)
def test_both_directions_agree_with_the_independent_cipher(key_file, password):
    key = key_file.read_bytes()[:32]
    first = driver_ok("encrypt", str(key_file), password)
    second = driver_ok("encrypt", str(key_file), password)
    assert python_decrypt(key, first) == python_decrypt(key, second) == password
    # Every encryption has its own IV.
    assert first[:len(PREFIX) + 24] != second[:len(PREFIX) + 24]
    stored = stored_form(key, os.urandom(16), password)
    assert driver_ok("decrypt", str(key_file), stored) == password
