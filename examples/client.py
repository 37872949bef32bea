#!/usr/bin/python3
"""Writes the regulatory images into a folder, one file each, and then prints each notification as it is posted,
until there has been none for some seconds. Usage: client.py FOLDER [SECONDS]"""

import asyncio
import sys
from pathlib import Path

import corvane


def save_images(folder: Path) -> None:
    with corvane.Public() as daemon:
        for number, image in enumerate(daemon.images(), start=1):
            # The name of an image is no safe file name: it holds whatever somebody has stored.
            path = folder / f"image-{number}.{image.extension}"
            path.write_bytes(image.data)
            print(f"{path}: {image.media_type}, {len(image.data)} bytes")


async def follow(seconds: float) -> None:
    with corvane.Subscription(timeout=seconds) as notifications:
        async for notification in notifications:
            print(notification.name or f"missed {notification.missed}", flush=True)


def main() -> None:
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: client.py FOLDER [SECONDS]")
    try:
        save_images(Path(sys.argv[1]))
        asyncio.run(follow(float(sys.argv[2]) if len(sys.argv) == 3 else 60))
    except (corvane.Error, OSError) as error:
        sys.exit(f"client.py: {error}")


if __name__ == "__main__":
    main()
