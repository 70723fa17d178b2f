"""The texts behind the lists in tests/golden/signatures, made as tests/api/scenario.cpp
makes them: from the 64-bit Mersenne Twister of the C++ library."""
import string
from typing import Iterator

SEED = 20250305
_SIZE, _MIDDLE, _MASK = 312, 156, 2**64 - 1
_LETTERS = (string.ascii_uppercase + string.ascii_lowercase).encode()
_WORDS = _LETTERS + b"0123456789      ,.;:-\r\n\t\xe9\xc3"


def _numbers(seed: int) -> Iterator[int]:
    state = [seed]
    for i in range(1, _SIZE):
        last = state[-1]
        state.append((6364136223846793005 * (last ^ (last >> 62)) + i) & _MASK)
    while True:
        for i in range(_SIZE):
            joined = (state[i] & 0xFFFFFFFF80000000) | (state[(i + 1) % _SIZE] & 0x7FFFFFFF)
            turned = (joined >> 1) ^ (0xB5026F5AA96619E9 if joined & 1 else 0)
            state[i] = state[(i + _MIDDLE) % _SIZE] ^ turned
        for x in state:
            x ^= (x >> 29) & 0x5555555555555555
            x ^= (x << 17) & 0x71D67FFFEDA60000
            x ^= (x << 37) & 0xFFF7EEE000000000
            yield x ^ (x >> 43)


def _drawn(alphabet: bytes, length: int, seed: int) -> bytes:
    numbers = _numbers(seed)
    return bytes(alphabet[next(numbers) % len(alphabet)] for _ in range(length))


def letters(length: int) -> bytes:
    return _drawn(_LETTERS, length, SEED)


def words() -> bytes:
    return _drawn(_WORDS, 30000, SEED)


def any_bytes(length: int, seed: int = SEED) -> bytes:
    return _drawn(bytes(range(256)), length, seed)
