# Built-in virtual Mac: MacBookPro10,1 (Retina 15-inch, mid 2012).
# Intel, two fans forced into manual mode through the FS! bit mask; fan speeds fpe2;
# temperatures sp78, power sp87/sp96, voltage sp5a/sp4b, current sp3c/sp4b.
# Values are a snapshot of a lightly loaded machine; -127 marks unfitted sensors.

model MacBookPro10,1

# Physics: a 45 W quad-core i7 and a GT 650M sharing one heatsink with two blowers.
physics cpu-idle-power 5
physics cpu-max-power 45
physics gpu-idle-power 1.5
physics gpu-max-power 32
physics board-power 8
physics cpu-load 0.08
physics gpu-load 0.03
physics dc-voltage 16.5

# Firmware: the fans leave their minimum at 55 degC and reach their maximum at 92 degC.
firmware fan-curve-low 55
firmware fan-curve-high 92

# Battery: 95 Wh, three cells in series, charging at 2.3 A (capacities from the B0 keys).
battery cells 3
battery charge-current 2295

# Identity, firmware and revision keys
key $Adr   ui32    4 0x80 768
key $Num   ui8     1 0xd0 1
key +LKS   flag    1 0xc0 1
key RPlt   ch8*    8 0x80 "j31"
key RBr    ch8*    8 0x80 "j31"
key REV    {rev    6 0x80 <02 03 0f 00 00 26>
key RVBF   {rev    6 0x80 <02 03 0f 00 00 26>
key RVUF   {rev    6 0x80 <02 03 0f 00 00 26>
key RMde   char    1 0x80 "A"
key RSvn   ui8     1 0x80 1
key EPCI   ui32    4 0x80 12582912
key EPCA   ui32    4 0x80 268435456
key EPCV   ui16    2 0x80 259
key EPMA   ch8*    4 0x80 "ETA"
key EPMI   ui8     1 0x80 3
key EPUA   ui32    4 0x80 8192

# Power adapter and AC
key ACID   ch8*    8 0x80 <0a 00 55 04 00 00 00 00>
key ACIN   flag    1 0x80 1
key ACEN   ui8     1 0x80 1
key ACFP   flag    1 0x80 0
key ACIC   si8     1 0x80 0
key AC-W   si8     1 0x80 85
key ACCL   ui8     1 0xc0 0

# Ambient light sensor
key ALA0   {ala    6 0x80 <00 00 00 00 00 00>
key ALA1   {ala    6 0x80 <00 00 00 00 00 00>
key ALI0   {ali    2 0x80 <0a 01>
key ALI1   {ali    2 0x80 <0a 02>
key ALRV   ui16    2 0x80 1
key ALSL   ui16    2 0x80 14
key ALV0   {alv   10 0x80 <01 00 c8 00 a0 00 00 00 00 00>
key ALV1   {alv   10 0x80 <01 00 b4 00 9c 00 00 00 00 00>

# Battery (SMC side; the battery dictionary lives elsewhere)
key BATP   flag    1 0x80 1
key BBAD   flag    1 0x80 0
key BBIN   ui8     1 0x80 1
key BEMB   flag    1 0x80 1
key BNum   ui8     1 0x80 1
key BSIn   ui8     1 0x80 7
key BFCL   ui8     1 0xc0 100
key BHTL   ui8     1 0x80 0
key BLPS   ui8     1 0x80 0
key BRSC   ui16    2 0x80 28
key BSAC   ui16    2 0x80 0
key BSDC   ui8     1 0x80 0
key BC1V   ui16    2 0x80 3968
key BC2V   ui16    2 0x80 3969
key BC3V   ui16    2 0x80 3972
key B0AP   ui16    2 0x80 0
key B0Al   ui8     1 0x80 0
key B0CT   ui16    2 0x80 1123
key B0DC   ui16    2 0x80 8460
key B0FC   ui16    2 0x80 7320
key B0RM   ui16    2 0x80 2050
key B0St   ui16    2 0x80 192
key B0TF   ui16    2 0x80 65535
key B0Ti   ui16    2 0x80 0

# Clock, wake, lid and system state
key CLKH   {clh    8 0x80 <00 00 70 80 00 01 19 40>
key CLKS   ui8     1 0x80 0
key CLKT   ui32    4 0xc0 50123
key CLWK   ui16    2 0xc0 0
key CRCA   ui32    4 0x80 1814796831
key CRCB   ui32    4 0x80 445529095
key DICT   flag    1 0x80 0
key HBKP   ui8     1 0xc0 0
key HDBS   ui8     1 0x80 0
key HDST   ui8     1 0x80 1
key KPPW   ui8     1 0xc0 0
key KPST   ui8     1 0x80 0
key LAcN   ui8     1 0x80 1
key LAKF   ui8     1 0xc0 0
key LAtN   ui8     1 0x80 1
key LCCN   ui8     1 0x80 0
key LCCQ   ui8     1 0x80 0
key LCFQ   ui8     1 0x80 0
key LCKA   ui8     1 0xc0 0
key LCSA   ui8     1 0xc0 0
key LCTN   ui8     1 0x80 0
key LCTQ   ui8     1 0x80 0
key LKSB   {lkb    2 0xc0 <00 00>
key LKSS   {lks    2 0x80 <00 00>
key LSCF   ui8     1 0xc0 0
key LSDD   ui8     1 0xc0 0
key LSDU   ui8     1 0xc0 0
key LSFD   ui8     1 0xc0 0
key LSFU   ui8     1 0xc0 0
key LSLB   ui8     1 0xc0 0
key LSLF   ui8     1 0xc0 0
key LSLN   ui8     1 0xc0 0
key LSOF   ui8     1 0xc0 1
key LSON   ui8     1 0xc0 1
key LSRB   ui8     1 0xc0 0
key LSSB   ui8     1 0xc0 0
key LSSE   ui8     1 0xc0 0
key LSSS   ui8     1 0xc0 0
key LSPV   {lso    7 0xc0 <00 00 00 00 00 00 00>
key LSSV   ui16    2 0xc0 0
key MSAc   ui16    2 0x80 0
key MSAf   ui16    2 0x80 0
key MSAg   ui16    2 0x80 0
key MSAi   ui16    2 0x80 0
key MSAm   ui8     1 0x80 0
key MSAr   ui16    2 0x80 0
key MSDI   ui8     1 0x80 0
key MSFW   ui8     2 0x80 <01 00>
key MSGA   ui8     1 0x80 0
key MSHS   ui16    2 0x80 0
key MSLD   ui8     1 0x80 0
key MSPS   ui16    2 0x80 3
key MSSD   si8     1 0xc0 3
key MSSP   si8     1 0x80 0
key MSSS   ui8     1 0x80 1
key MSSW   ui8     1 0xc0 0
key MSTM   ui8     1 0x80 0
key MSWR   ui8     1 0xc0 0
key NATJ   ui8     1 0x80 0
key NATi   ui16    2 0x80 0
key NTOK   ui8     1 0xc0 1
key ONMI   ui8     1 0xc0 0
key SBFC   ui8     1 0x80 0
key SBFL   ui8     1 0x80 0
key SBFU   ui8     1 0x80 0
key SBSC   ui8     1 0x80 0
key SBSE   ui8     1 0x80 0
key SBSL   ui8     1 0x80 0
key SPHS   ui8     1 0x80 0
key SPHT   ui8     1 0x80 0
key WKTP   ui8     1 0xc0 0
key zDBG   ui8     1 0xc0 0
key zEBS   ui8     1 0x80 0
key zETM   flag    1 0x80 0

# Fans: FNum, the force mask, one {fds description per fan, speeds in fpe2
key FNum   ui8     1 0x80 2
key FS!    ui16    2 0xc0 0
key FPhz   si16    2 0x80 0
key F0ID   {fds   16 0x80 <00 00 0c 00> "Left side"
key F0Ac   fpe2    2 0x90 2982
key F0Mn   fpe2    2 0xc0 2160
key F0Mx   fpe2    2 0xc0 5940
key F0Sf   fpe2    2 0x80 2160
key F0Tg   fpe2    2 0xd0 2986
key F1ID   {fds   16 0x80 <00 00 0d 00> "Right side"
key F1Ac   fpe2    2 0x90 2010
key F1Mn   fpe2    2 0xc0 2000
key F1Mx   fpe2    2 0xc0 5499
key F1Sf   fpe2    2 0x80 2000
key F1Tg   fpe2    2 0xd0 2000

# Temperatures (sp78), at rest. TC0E is the virtual die temperature and runs warmest.
key TA0V   sp78    2 0xc0 31.5
key TB0T   sp78    2 0xc0 36.3
key TB1T   sp78    2 0xc0 36.3
key TB2T   sp78    2 0xc0 34.6
key TC0C   sp78    2 0xc0 62.0
key TC0D   sp78    2 0xc0 66.25
key TC0E   sp78    2 0xc0 66.1
key TC0F   sp78    2 0xc0 64.5
key TC0J   sp78    2 0x80 0.0
key TC0P   sp78    2 0xc0 63.4
key TC1C   sp78    2 0xc0 61.0
key TC2C   sp78    2 0xc0 63.0
key TC3C   sp78    2 0xc0 60.0
key TC4C   sp78    2 0xc0 62.0
key TCGC   sp78    2 0xc0 57.0
key TCSA   sp78    2 0xc0 59.0
key TCXC   sp78    2 0xc0 66.5
key TG0D   sp78    2 0xc0 59.0
key TG0F   sp78    2 0xc0 58.75
key TG0H   sp78    2 0xc0 55.5
key TG0P   sp78    2 0xc0 61.4
key TG0T   sp78    2 0xc0 58.0
key TG1D   sp78    2 0xc0 58.0
key TGDD   sp78    2 0xc0 60.0
key TH0A   sp78    2 0xc0 38.0
key TH0B   sp78    2 0xc0 37.5
key TH0P   sp78    2 0xc0 40.0
key TL0P   sp78    2 0xc0 33.0
key TL0V   sp78    2 0xc0 33.5
key TM0P   sp78    2 0xc0 57.4
key TM0S   sp78    2 0xc0 56.0
key TPCD   sp78    2 0xc0 64.0
key TS0P   sp78    2 0xc0 -127.0
key TW0P   sp78    2 0xc0 51.5
key Th1H   sp78    2 0xc0 52.0
key Th2H   sp78    2 0xc0 50.0
key Tm0P   sp78    2 0xc0 49.5
key Ts0P   sp78    2 0xc0 34.1
key Ts0S   sp78    2 0xc0 35.0
key Ts1P   sp78    2 0xc0 33.0
key Ts1S   sp78    2 0xc0 34.0
key TCFP   ui8     1 0x80 0
key TBXT   flag    1 0x80 0

# Power (W)
key PC0C   sp96    2 0xc0 10.6
key PC0R   sp87    2 0xc0 9.5
key PC1R   sp87    2 0xc0 0.0
key PCAM   sp87    2 0xc0 0.0
key PCPC   sp87    2 0xc0 8.1
key PCPG   sp87    2 0xc0 1.2
key PCPT   sp87    2 0xc0 9.3
key PCTR   sp87    2 0xc0 10.1
key PDTR   sp87    2 0xc0 58.4
key PG0R   sp87    2 0xc0 3.8
key PGTR   sp87    2 0xc0 3.6
key PM0R   sp87    2 0xc0 1.1
key PMTR   sp87    2 0xc0 1.3
key PO0R   sp87    2 0xc0 2.0
key PSTR   sp87    2 0xc0 28.4
key PZ0E   sp87    2 0xc0 0.0
key PZ1E   sp87    2 0xc0 0.0
key PCPL   ui8     1 0xc0 45
key PLCR   flag    1 0x80 0

# Voltages (V) and currents (A)
key VC0C   sp5a    2 0xc0 1.05
key VD0R   sp5a    2 0xc0 17.93
key VG0C   sp5a    2 0xc0 0.9
key VM0R   sp5a    2 0xc0 1.35
key VN0C   sp5a    2 0xc0 1.05
key VP0R   sp4b    2 0xc0 11.88
key IC0C   sp5a    2 0xc0 8.4
key IC0R   sp4b    2 0xc0 1.14
key ID0R   sp3c    2 0xc0 3.14
key IG0C   sp5a    2 0xc0 2.1
key IM0R   sp5a    2 0xc0 0.8
key IN0C   sp5a    2 0xc0 0.6
key IO0R   sp4b    2 0xc0 0.4
key IPBR   sp4b    2 0xc0 0.0
key VBAT   flag    1 0x80 1

# Battery keys
key B0AV   ui16    2 0x80 11909
key B0AC   si16    2 0x80 2295
