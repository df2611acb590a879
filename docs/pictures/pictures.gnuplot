# The pictures of the guide, from the tables that the program beside this file writes into the current folder.
set terminal svg size 720,320 font "sans,12" background "white"
set style line 1 linewidth 1.5 linecolor "#1f6fb4"
set style line 2 linewidth 1.5 linecolor "#d1661f" dashtype 2
set style fill solid 0.25 noborder
set grid back linetype 1 linecolor "#dddddd"
set key top right noenhanced
light = 0.299792458

set output "pulse.svg"
set xlabel "time after the pulse, ns"
set x2label "range, m"
set x2tics 0.2 format "%.1f"
set xtics nomirror
set ylabel "level, % of the threshold DAC"
set link x2 via light/2*x inverse x*2/light
plot "pulse.txt" using 1:2 with linespoints linestyle 1 pointtype 7 pointsize 0.3 notitle
unset link x2
unset x2tics
unset x2label
set xtics mirror

set output "sweep.svg"
set xlabel "time, us"
set ylabel "threshold, % of the DAC"
set yrange [20:80]
plot "sweep.txt" using 1:2 with lines linestyle 1 notitle
unset yrange

set output "counter.svg"
set xlabel "threshold, % of the DAC"
set ylabel "share of pulses above it"
stats "counter.txt" using 3 nooutput
set yrange [0:1.15]
set arrow 1 from STATS_mean,0 to STATS_mean,1.15 nohead linestyle 2
plot "counter.txt" using 1:2 with filledcurves x1 linecolor "#1f6fb4" title "counter", "" using 1:2 with lines linestyle 1 notitle, \
     NaN linestyle 2 title "level of the signal"
unset arrow 1
unset yrange

set output "frame.svg"
set xlabel "range, m"
set ylabel "level, % of the threshold DAC"
plot "frame.txt" using 1:2 with lines linestyle 1 notitle

set output "noise.svg"
set logscale xy
set xlabel "Iterations x PulsesPerStep"
set ylabel "noise of a sampler, % of the DAC"
plot "noise.txt" using 1:2 with points pointtype 7 linecolor "#1f6fb4" title "measured", "" using 1:3 with lines linestyle 2 title "formula"
unset logscale

set output "calibration.svg"
set xlabel "coarse delay element"
set ylabel "delay, ps"
set xrange [-0.5:14.5]
set yrange [1150:1300]
plot "calibration.txt" using 1:2 with points pointtype 7 linecolor "#1f6fb4" title "measured", "" using 1:3 with histeps linestyle 2 title "true", 1250 with lines linecolor "#999999" title "assumed before"
