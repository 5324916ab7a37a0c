#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A headless Chromium publishes its test picture and tone at a recorder's page, then leaves.

Arguments: the page's URL, seconds, and a PNG file for a screenshot of the page as it records."""
import sys
import time
import urllib.parse

import browser as chromium


def main():
    url, seconds, picture = sys.argv[1], float(sys.argv[2]), sys.argv[3]
    with chromium.Browser() as browser:
        page = browser.open(f"{url}?auto={urllib.parse.quote('Ada Lovelace')}", script="")
        page.wait_for("document.body.dataset.state === 'recording'")
        page.wait_for("document.getElementById('self').videoWidth > 0")
        page.screenshot(picture, 800, 760)
        time.sleep(seconds)
        page.evaluate("document.getElementById('leave').click()")
        page.wait_for("document.body.dataset.state === 'left'")


if __name__ == "__main__":
    main()
