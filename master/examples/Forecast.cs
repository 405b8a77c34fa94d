// A forecast of one year in steps of 30 days, through jobmill_master.dll.
//
//   Forecast PORT DATA-DIRECTORY/ MODEL USER
using System;
using System.Globalization;
using System.Linq;
using System.Runtime.InteropServices;
using System.Text;

static class Jobmill
{
    const string Library = "jobmill_master";  // on Linux libjobmill-master.so.0

    [DllImport(Library)] public static extern IntPtr jobmill_new();
    [DllImport(Library)] public static extern void jobmill_free(IntPtr run);
    [DllImport(Library)] public static extern int jobmill_error_text(IntPtr run, byte[] text, int room);
    [DllImport(Library)] public static extern int jobmill_set(IntPtr run, byte[] name, byte[] value);
    [DllImport(Library)] public static extern int jobmill_launch(IntPtr run);
    [DllImport(Library)] public static extern int jobmill_shutdown(IntPtr run, int seconds);
    [DllImport(Library)] public static extern int jobmill_first_step(IntPtr run);
    [DllImport(Library)] public static extern int jobmill_run_until(IntPtr run, double days);
    [DllImport(Library)] public static extern int jobmill_has_ended(IntPtr run, out int flag);
    [DllImport(Library)] public static extern int jobmill_read_wells(IntPtr run);
    [DllImport(Library)] public static extern int jobmill_well_name(IntPtr run, int well, byte[] text, int room);
    [DllImport(Library)] public static extern int jobmill_read_data(IntPtr run, byte[] wells, double[] values, int room);

    // Texts are UTF-8 with a zero byte at the end, whatever the code page is.
    public static byte[] Bytes(string text) => Encoding.UTF8.GetBytes(text + "\0");

    public delegate int Giver(byte[] text, int room);

    public static string Text(Giver give)
    {
        var text = new byte[give(null, 0) + 1];
        give(text, text.Length);
        return Encoding.UTF8.GetString(text, 0, text.Length - 1);
    }
}

class Forecast
{
    const int WellValues = 8, OilRate = 0, GasRate = 1, WaterRate = 2, BottomHolePressure = 5;
    static IntPtr run;

    static int Check(int result)
    {
        if (result >= 0) return result;
        throw new Exception(
            $"error {result}: {Jobmill.Text((text, room) => Jobmill.jobmill_error_text(run, text, room))}");
    }

    static void Main(string[] arguments)
    {
        run = Jobmill.jobmill_new();
        try
        {
            string[] names = { "port", "path", "root", "user" };
            for (int i = 0; i < names.Length; ++i)
                Check(Jobmill.jobmill_set(run, Jobmill.Bytes(names[i]), Jobmill.Bytes(arguments[i])));
            Check(Jobmill.jobmill_launch(run));

            int wells = Check(Jobmill.jobmill_read_wells(run));
            byte[] all = Jobmill.Bytes(string.Join("\n", Enumerable.Range(0, wells).Select(
                well => Jobmill.Text((text, room) => Jobmill.jobmill_well_name(run, well, text, room)))));
            var values = new double[wells * WellValues];
            Func<int, double> sum = place => Enumerable.Range(0, wells).Sum(well => values[well * WellValues + place]);

            Check(Jobmill.jobmill_first_step(run));
            Console.WriteLine("day,oil,water,gas,lowest bottom-hole pressure");
            for (int day = 30; day <= 360; day += 30)
            {
                Check(Jobmill.jobmill_run_until(run, day));
                Check(Jobmill.jobmill_read_data(run, all, values, values.Length));
                double lowest = Enumerable.Range(0, wells).Min(well => values[well * WellValues + BottomHolePressure]);
                Console.WriteLine(string.Format(CultureInfo.InvariantCulture, "{0},{1:g6},{2:g6},{3:g6},{4:g6}",
                    day, sum(OilRate), sum(WaterRate), sum(GasRate), lowest));
                Check(Jobmill.jobmill_has_ended(run, out int ended));
                if (ended != 0) break;
            }
            Check(Jobmill.jobmill_shutdown(run, 30));
        }
        finally
        {
            Jobmill.jobmill_free(run);
        }
    }
}
