"""Python consumers of the radar scene stream.

scene_pb2 holds the classes generated from scene.proto; radarscene.sub is an
example subscriber (python3 -m radarscene.sub --help).
"""
