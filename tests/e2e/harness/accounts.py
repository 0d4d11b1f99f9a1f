"""A password file that only the test's own namespace sees. `mkpasswd` makes further hashes."""

from __future__ import annotations

import dataclasses
import subprocess

SHA512 = b"$6$Zq3nB0uT$75bVGaMmqaY2KMRd5Rk2pvNM0CcfiWX8tolejA.uwIwPc8zJs5ZdoR.68IrlTSiA1DguIjn3cFXjAwDLVomSA/"
YESCRYPT = b"$y$j9T$wq8R1pXz0dVnK3e.Lm5Tu/$sKHHyAqVhAO7HS/BO7wzLH7NSjGvHh7ZqsOACJ07dk8"
SHA512_OF_ROOT = b"$6$kH7sW2xE$X4UGlXnayluzITquHiYIqasPd7Y18eyAo8F1nhQKg2OUwUHTToMFtx6GeOeHaQDQNa2vHr2Th4SDYCyDmtxHb."
EXPENSIVE = (  # a second of a fast processor
    b"$6$rounds=3000000$q8sVw2Lm0TzR$" b"N3KqjjDfeHyikP/NW4DTdfrnpR9jUc6K8kb9zIw4bBscM23lpPqs8dTDwEqADP9QfG1haoTUPkVan/FWPV.9h."
)


@dataclasses.dataclass(frozen=True)
class Account:
    name: bytes
    password: bytes
    field: bytes  # the password field of the file


ALICE = Account(b"alice", b"secret", SHA512)
BOB = Account(b"bob", b"sesame", YESCRYPT)
ROOT = Account(b"root", b"toor", SHA512_OF_ROOT)
SHADOWED = Account(b"sheila", b"secret", b"x")
LOCKED = Account(b"lola", b"secret", b"!" + SHA512)
WITHOUT_PASSWORD = Account(b"olga", b"", b"")
PATIENT = Account(b"paula", b"secret", EXPENSIVE)
LONGEST_NAME = Account(b"n" * 255, b"secret", SHA512)  # with its line end as long as a name may be
TOO_LONG_NAME = Account(b"m" * 256, b"secret", SHA512)
FORMAT_NAME = Account(b"%s%n%d", b"secret", SHA512)
CONTROL_NAME = Account(b"a\x01\x08\x1b[2J\x7fz", b"secret", SHA512)
EIGHT_BIT_NAME = Account(b"\xe9\x80\xc3", b"secret", SHA512)

ALL = (
    ROOT,
    ALICE,
    BOB,
    SHADOWED,
    LOCKED,
    WITHOUT_PASSWORD,
    PATIENT,
    LONGEST_NAME,
    TOO_LONG_NAME,
    FORMAT_NAME,
    CONTROL_NAME,
    EIGHT_BIT_NAME,
)


def install() -> None:
    """Puts the accounts in the place of the machine's, until the test ends."""
    path = "/run/passwd"
    with open(path, "wb") as file:
        for number, account in enumerate(ALL):
            user = 0 if account is ROOT else 1000 + number
            file.write(b"%s:%s:%d:%d::/nowhere:/bin/false\n" % (account.name, account.field, user, user))
    subprocess.run(["mount", "--bind", path, "/etc/passwd"], check=True)
