# Code generated from descriptions/: none yet.
