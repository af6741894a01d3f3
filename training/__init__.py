"""Training of the denoiser: data, scenes, network, loss, evaluation and export.

Geometry and layer shapes (frame, hop, bins, bands, look-ahead) come from the library itself through
`training.library`, tables and band edges from the lists that the library compiles.
"""
