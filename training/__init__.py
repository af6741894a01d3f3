"""Training of the denoiser: data, scenes, network, loss, evaluation and export.

Every number that the library also knows (frame, hop, bins, bands, layer shapes) comes from the
library itself through `training.library`; nothing here repeats it.
"""
