"""The soak: everybody who may ever talk to the daemon does so at once, for as long as one likes, and nothing is lost or grows.

    python3 -m soak --help

stage.py    the actors, the processes that they live in, and when they act, rest and end
speech.py   conversations in which every command is accounted for
well.py     those who keep to the rules, and must be served
mortal.py   processes of the device that die, come back, are slow or stuck, and who asks them
delays.py   delayed commands
serial.py   the terminal on the serial line, and who writes to that line
rude.py     those who keep to no rule
watch.py    what the daemon holds and uses
run.py      all of it together
report.py   the table and the verdict
plot.py     round trips and memory over time"""
